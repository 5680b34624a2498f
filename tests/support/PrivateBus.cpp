// Kept apart from TestSupport.cpp so that tests without a bus do not link the broker.
#include <stdexcept>

#include "MsgBroker.h"
#include "TestSupport.h"

namespace pmtest {

PrivateBus::PrivateBus() {
    m_address = m_dir.File("bus");
    m_env = std::make_unique<ScopedEnv>("RECORDER_BUS", m_address);
    m_broker = std::make_unique<Common::CMsgBroker>(Common::BusEndpointsFromEnv());
    if (m_broker->Start() != 0) {
        throw std::runtime_error("private bus: broker did not start at " + m_address);
    }
}

PrivateBus::~PrivateBus() {
    m_broker.reset();
    m_env.reset();
}

}  // namespace pmtest
