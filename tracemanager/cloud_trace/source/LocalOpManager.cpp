#include "LocalOpManager.hpp"

#include <stdexcept>

std::shared_ptr<LocalOpManager> LocalOpManager::instance() {
  throw std::runtime_error("Trace capture is not available in this build");
}
