// The session side of the simulation: the session manager, sessions on the
// active scenario with their devices, routes and target objects, operation
// servers with their properties and operations.
#pragma once

#include "xevt/Session.hpp"

namespace OstrandSim {

// The one session manager of the process.
__attribute__((visibility("default"))) Qx::Nlv::Xevt::ISessionManager* sessionManager();

}  // namespace OstrandSim
