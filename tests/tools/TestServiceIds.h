// Bus events of the test service (tests/tools/test_service.cpp), shared with its tests.
#ifndef TESTS_TOOLS_TEST_SERVICE_IDS_H
#define TESTS_TOOLS_TEST_SERVICE_IDS_H

namespace pmtest {

constexpr int kEchoRequest = 7001;    // request; answered with the payload reversed
constexpr int kStopFeeding = 7002;    // the service stops feeding its watchdog
constexpr int kResumeFeeding = 7003;  // and starts again

}  // namespace pmtest

#endif
