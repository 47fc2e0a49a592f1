#pragma once
#include <cstdint>
#include "QuelinLib/Flags.h"

namespace Quelin {

/// Operators that unmapping leaves out: each operator tests one bit and, when
/// it is set, returns the colour unchanged from its unmap.
enum class ColorMappingExclude : std::uint32_t {
    Exposure = 0x1,          ///< SimpleExposureOperator, PhotographicExposureOperator
    WhiteBalance = 0x2,
    GreenMagentaTint = 0x4,
    Saturation = 0x8,
    Reinhard = 0x10,
    Filmic = 0x20,
    Contrast = 0x40,
    Lut = 0x80,
    Tint = 0x100,
    SrgbConversion = 0x200,  ///< LinearToSrgbOperator and SrgbToLinearOperator
    Curves = 0x400,
    AdvancedFilmic = 0x800,
    ToneCurve = 0x1000,
    AcesOt = 0x2000,
};

inline constexpr std::uint32_t COLOR_MAPPING_EXCLUDE_ALL = 0x3FFF;

} // namespace Quelin
