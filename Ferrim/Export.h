#pragma once
#include "QuelinLib/Base.h"

// The one export macro of the shading library.
#if defined(FERRIM_BUILDING_LIBRARY)
#define FERRIM_EXPORT QUELIN_EXPORT_DECL
#else
#define FERRIM_EXPORT QUELIN_IMPORT_DECL
#endif
