#include "json_interface/TraceManagerConnection.hpp"

#include <algorithm>

#include "json_interface/Translator.hpp"
#include "json_interface/WorkQueue.hpp"

TraceManagerConnection::TraceManagerConnection(HostConnection* host)
    : link_(std::make_shared<HostLink>()) {
  link_->host = host;
  std::weak_ptr<HostLink> weakLink = link_;
  translator_ = std::make_shared<JSONInterface::Translator>([weakLink](const std::string& text) {
    auto link = weakLink.lock();
    if (!link) return;
    // Recursive: a host may release the connection from inside receive().
    std::lock_guard<std::recursive_mutex> guard(link->hostMutex);
    if (link->host != nullptr) link->host->receive(text.c_str());
  });
}

TraceManagerConnection::~TraceManagerConnection() {
  {
    std::lock_guard<std::recursive_mutex> guard(link_->hostMutex);
    if (link_->host != nullptr) {
      // Only at unload: a connection released by its host is unhooked first.
      link_->host->closed();
      link_->host = nullptr;
    }
  }
  translator_.reset();
}

void TraceManagerConnection::send(const char* message) {
  std::weak_ptr<JSONInterface::Translator> target = translator_;
  WorkQueue::instance().post([text = std::string(message != nullptr ? message : ""), target] {
    if (auto translator = target.lock()) translator->process(text);
  });
}

void TraceManagerConnection::release() {
  {
    std::lock_guard<std::recursive_mutex> guard(link_->hostMutex);
    link_->host = nullptr;
  }
  auto& list = all();
  auto found = std::find_if(list.begin(), list.end(), [this](const auto& c) { return c.get() == this; });
  if (found == list.end()) return;
  std::unique_ptr<TraceManagerConnection> self = std::move(*found);
  list.erase(found);  // later entries keep their order
  self.reset();       // destroys this object
}

std::vector<std::unique_ptr<TraceManagerConnection>>& TraceManagerConnection::all() {
  static std::vector<std::unique_ptr<TraceManagerConnection>> connections;
  return connections;
}
