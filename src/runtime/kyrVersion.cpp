// The library's build level, reported to hosts and in state reports; the only runtime symbol
// outside namespace kyr because hosts call it through the C interface.
#include "kyrlib.h"

// "KYRLIB" + release + ".KYRLIB_" + build label + "." + build number.
extern "C" const char* kyrGetVersion(void) { return "KYRLIB100.KYRLIB_A0001.01"; }
