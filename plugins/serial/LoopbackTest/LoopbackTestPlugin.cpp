// Entry points of libLoopbackTest.so: the only symbols the library exports. Configured for
// the factory loopback jigs (main ids 34 and 36), but any id the configuration names works.
#include "BasicServiceExport.h"
#include "LoopbackTest.h"

BASICSERVICE_PLUGIN(CLoopbackTest)
