// low::promise<void>: a small continuation-style promise without a value.
//
// It tells only that an operation finished, failed with an exception, or was
// cancelled. Nothing can block on it: a waiter attaches functions with then(),
// and settling runs them at once, on the settling thread.
//
// Thread: not thread-safe. Only the shared-pointer counts are atomic; a
// promise is used by one thread at a time (the WorkQueue worker). Another
// thread hands completion over with resolveDeferred(), which posts the
// resolve to the worker.
//
// Ownership: a handle shares its state. A child holds its parent weakly and
// a parent's continuations hold the child strongly, so a chain lives as long
// as its root; a cancelled child does not keep its parent alive.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace low {

namespace detail {

class noncopyable {
 protected:
  noncopyable() = default;
  ~noncopyable() = default;

 public:
  noncopyable(const noncopyable&) = delete;
  noncopyable& operator=(const noncopyable&) = delete;
};

class BaseState : private noncopyable, public std::enable_shared_from_this<BaseState> {
 public:
  virtual void clearContinuations() = 0;
  virtual bool cancelState() = 0;

 protected:
  ~BaseState() = default;
};

}  // namespace detail

template <typename T>
class promise;

template <>
class promise<void> {
 public:
  enum Status : int32_t { pending = 0, resolved = 1, rejected = 2, cancelled = 3 };
  using SuccessFn = std::function<void()>;
  using FailureFn = std::function<void(std::exception_ptr)>;

  class state final : public detail::BaseState {
   public:
    void clearContinuations() override { continuations.clear(); }
    bool cancelState() override;

    int32_t status = pending;
    std::weak_ptr<detail::BaseState> parent;
    std::function<void()> onCancel;
    std::exception_ptr error;
    std::vector<std::pair<SuccessFn, FailureFn>> continuations;
  };

  promise() : state_(std::make_shared<state>()) {}

  bool resolve() const;
  bool reject(std::exception_ptr error) const;
  bool cancel() const { return state_->cancelState(); }

  // Chains `child` behind this promise. A failure function that returns
  // normally resolves the child: the failure counts as handled. Without one,
  // the child is rejected with the same exception.
  void then(const promise& child, SuccessFn success, FailureFn failure = nullptr) const;
  // The child just follows this promise in both outcomes.
  void then(const promise& child) const { then(child, [] {}); }

  static promise rejectedWith(const std::runtime_error& error);

  Status status() const { return static_cast<Status>(state_->status); }
  // For tests and callers that install a cancel handler.
  void setOnCancel(std::function<void()> handler) const { state_->onCancel = std::move(handler); }
  bool sameState(const promise& other) const { return state_ == other.state_; }

 private:
  std::shared_ptr<state> state_;
};

// A promise already rejected with a copy of `error`; for operations that fail
// before they start.
inline promise<void> rejected(const std::runtime_error& error) {
  return promise<void>::rejectedWith(error);
}

// Posts a task on the WorkQueue that resolves `p`; the task holds its own
// reference, so the state outlives the caller.
void resolveDeferred(const promise<void>& p);

inline bool promise<void>::state::cancelState() {
  auto self = shared_from_this();  // keeps the state alive while callbacks run
  if (status != pending) return false;
  status = cancelled;
  clearContinuations();
  if (onCancel) {
    onCancel();
    return true;
  }
  if (auto up = parent.lock()) up->cancelState();
  return true;
}

inline bool promise<void>::resolve() const {
  auto keep = state_;
  if (keep->status != pending) return false;
  keep->status = resolved;
  // Continuations may attach more to other promises but never to this one
  // (it is settled), so moving the list out first is safe.
  auto continuations = std::move(keep->continuations);
  keep->continuations.clear();
  for (auto& c : continuations) c.first();
  return true;
}

inline bool promise<void>::reject(std::exception_ptr error) const {
  auto keep = state_;
  if (keep->status != pending) return false;
  keep->error = error;
  keep->status = rejected;
  auto continuations = std::move(keep->continuations);
  keep->continuations.clear();
  for (auto& c : continuations) c.second(error);
  return true;
}

inline void promise<void>::then(const promise& child, SuccessFn success, FailureFn failure) const {
  child.state_->parent = state_;
  SuccessFn onSuccess = [child, success = std::move(success)] {
    try {
      if (success) success();
    } catch (...) {
      child.reject(std::current_exception());
      return;
    }
    child.resolve();
  };
  FailureFn onFailure = [child, failure = std::move(failure)](std::exception_ptr error) {
    if (!failure) {
      child.reject(error);
      return;
    }
    try {
      failure(error);
    } catch (...) {
      child.reject(std::current_exception());
      return;
    }
    child.resolve();
  };
  switch (state_->status) {
    case pending:
      state_->continuations.emplace_back(std::move(onSuccess), std::move(onFailure));
      break;
    case resolved:
      onSuccess();
      break;
    case rejected:
      onFailure(state_->error);
      break;
    default:
      // Cancelled: the child stays pending; its holder must not wait on it.
      break;
  }
}

inline promise<void> promise<void>::rejectedWith(const std::runtime_error& error) {
  promise p;
  p.reject(std::make_exception_ptr(std::runtime_error(error)));
  return p;
}

}  // namespace low
