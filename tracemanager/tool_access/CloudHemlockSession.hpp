// CloudHemlockSession: gives a tool session back when the CloudHemlock
// operation that opened it ends, whichever way it ends (every session
// opened in an operation is released in that same operation). Internal to
// the tool gate.
#pragma once

#include "source_utilities/Logger.hpp"
#include "xevt/Session.hpp"

class CloudHemlockSession {
 public:
  CloudHemlockSession(Qx::Nlv::Xevt::ISessionManager* manager, Qx::Nlv::Xevt::ISession* session)
      : manager_(manager), session_(session) {}
  ~CloudHemlockSession() {
    try {
      if (session_ != nullptr) manager_->releaseSession(session_);
    } catch (...) {
      QX_LOG_ERROR("CloudHemlock: releaseSession failed");
    }
  }
  CloudHemlockSession(const CloudHemlockSession&) = delete;
  CloudHemlockSession& operator=(const CloudHemlockSession&) = delete;

 private:
  Qx::Nlv::Xevt::ISessionManager* manager_;
  Qx::Nlv::Xevt::ISession* session_;
};
