// Every target reads data types by name: the library is started once, before
// the first input.
#include "Ferrim/Ferrim.h"
#include "FuzzTarget.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Quelin::Ferrim::startup();
    return 0;
}
