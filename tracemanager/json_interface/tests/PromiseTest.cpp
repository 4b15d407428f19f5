#include "json_interface/promise.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Promise = low::promise<void>;

namespace {
std::string messageOf(std::exception_ptr e) {
  try {
    std::rethrow_exception(e);
  } catch (const std::exception& x) {
    return x.what();
  }
}
}  // namespace

TEST(PromiseTest, ThenOnSettledPromisesRunsAtOnce) {
  Promise done;
  done.resolve();
  Promise child;
  bool ran = false;
  done.then(child, [&] { ran = true; });
  EXPECT_TRUE(ran);
  EXPECT_EQ(child.status(), Promise::resolved);

  Promise failed = low::rejected(std::runtime_error("boom"));
  Promise handled;
  std::string seen;
  failed.then(handled, [] {}, [&](std::exception_ptr e) { seen = messageOf(e); });
  EXPECT_EQ(seen, "boom");
  EXPECT_EQ(handled.status(), Promise::resolved);  // a failure function that returns handles it

  Promise follower;
  failed.then(follower);
  EXPECT_EQ(follower.status(), Promise::rejected);
  Promise grandchild;
  std::string forwarded;
  follower.then(grandchild, [] {}, [&](std::exception_ptr e) { forwarded = messageOf(e); });
  EXPECT_EQ(forwarded, "boom");
}

TEST(PromiseTest, ExceptionsInContinuationsRejectTheChild) {
  Promise parent;
  Promise child;
  parent.then(child, [] { throw std::runtime_error("in success"); });
  parent.resolve();
  EXPECT_EQ(child.status(), Promise::rejected);

  Promise p2;
  Promise c2;
  p2.then(c2, [] {}, [](std::exception_ptr) { throw std::runtime_error("in failure"); });
  p2.reject(std::make_exception_ptr(std::runtime_error("x")));
  EXPECT_EQ(c2.status(), Promise::rejected);
}

TEST(PromiseTest, CancelTravelsUpAPendingChainAndDropsContinuations) {
  Promise parent;
  Promise child;
  int calls = 0;
  parent.then(child, [&] { ++calls; }, [&](std::exception_ptr) { ++calls; });
  Promise grandchild;
  child.then(grandchild, [&] { ++calls; });
  EXPECT_TRUE(grandchild.cancel());
  EXPECT_EQ(child.status(), Promise::cancelled);
  EXPECT_EQ(parent.status(), Promise::cancelled);
  EXPECT_FALSE(parent.resolve());
  EXPECT_FALSE(grandchild.cancel());
  EXPECT_EQ(calls, 0);
}

TEST(PromiseTest, CancelOnChildOfSettledParentCancelsOnlyTheChild) {
  // A child can be pending behind a settled parent when the parent was
  // cancelled before the child was chained.
  Promise parent;
  ASSERT_TRUE(parent.cancel());
  Promise child;
  parent.then(child);
  EXPECT_EQ(child.status(), Promise::pending);
  EXPECT_TRUE(child.cancel());
  EXPECT_EQ(child.status(), Promise::cancelled);
  EXPECT_EQ(parent.status(), Promise::cancelled);

  Promise resolvedParent;
  resolvedParent.resolve();
  Promise settledChild;
  resolvedParent.then(settledChild);
  EXPECT_FALSE(settledChild.cancel());
  EXPECT_EQ(resolvedParent.status(), Promise::resolved);
}

TEST(PromiseTest, ParentChildGrandchildResolveInOrder) {
  Promise parent, child, grandchild, end;
  std::vector<int> order;
  parent.then(child, [&] { order.push_back(1); });
  child.then(grandchild, [&] { order.push_back(2); });
  grandchild.then(end, [&] { order.push_back(3); });
  EXPECT_TRUE(parent.resolve());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(grandchild.status(), Promise::resolved);
}

TEST(PromiseTest, SettledTwiceIsRefused) {
  Promise p;
  EXPECT_TRUE(p.reject(std::make_exception_ptr(std::runtime_error("a"))));
  EXPECT_FALSE(p.reject(std::make_exception_ptr(std::runtime_error("b"))));
  EXPECT_FALSE(p.resolve());
  EXPECT_FALSE(p.cancel());
}

TEST(PromiseTest, OnCancelHandlerStopsTheWalkUp) {
  Promise parent, child;
  parent.then(child);
  bool called = false;
  child.setOnCancel([&] { called = true; });
  EXPECT_TRUE(child.cancel());
  EXPECT_TRUE(called);
  EXPECT_EQ(parent.status(), Promise::pending);
}

TEST(PromiseTest, CancelledChildDoesNotKeepItsParentAlive) {
  Promise child;
  std::weak_ptr<int> probe;
  {
    Promise parent;
    parent.then(child);
    auto marker = std::make_shared<int>(1);
    probe = marker;
    parent.then(Promise(), [marker] {});
  }
  EXPECT_TRUE(probe.expired());
  EXPECT_TRUE(child.cancel());  // parent gone: nothing to walk up to
}
