// libqx_xevt_session.so of the simulation: the session manager.
#include "SimHemlock.hpp"
#include "SimSession.hpp"
#include "hemlock/ToolEntryPoints.hpp"

extern "C" OSTRAND_SIM_API Qx::Nlv::Xevt::ISessionManager* XEVT_GetSessionManager() {
  return OstrandSim::sessionManager();
}
static_assert(std::is_same_v<decltype(&XEVT_GetSessionManager), XEVT_GetSessionManager_t>);
