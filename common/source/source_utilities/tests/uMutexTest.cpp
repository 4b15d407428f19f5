#include "source_utilities/uMutex.hpp"

#include <gtest/gtest.h>

#include <thread>

#include "TestSupport.hpp"
#include "source_utilities/uFile.hpp"

using QX_NLV::uMutex;

TEST(uMutexTest, RecursiveAndOwnerChecked) {
  uMutex m;
  EXPECT_TRUE(m.lock());
  EXPECT_TRUE(m.lock());
  bool otherUnlocked = true;
  std::thread([&] { otherUnlocked = m.unlock(); }).join();
  EXPECT_FALSE(otherUnlocked);
  EXPECT_EQ(m.owner(), std::this_thread::get_id());
  EXPECT_TRUE(m.unlock());
  EXPECT_EQ(m.owner(), std::this_thread::get_id());
  EXPECT_TRUE(m.unlock());
  EXPECT_EQ(m.owner(), std::thread::id{});
  EXPECT_FALSE(m.unlock());
}

TEST(uMutexTest, ExcludesOtherThreads) {
  uMutex m;
  long counter = 0;
  auto work = [&] {
    for (int i = 0; i < 10000; ++i) {
      QX_NLV::uMutexGuard g(m);
      ++counter;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(counter, 20000);
}

TEST(uFileTest, WritesOnlyWhenOpen) {
  ostrand_test::TempHome home;
  QX_NLV::uFile file;
  EXPECT_EQ(file.write("x", 1), 0u);
  EXPECT_FALSE(file.flush());
  EXPECT_FALSE(file.close());
  std::string path = home.path() + "/f.txt";
  ASSERT_TRUE(file.open(path.c_str(), "w+"));
  EXPECT_EQ(file.write("hello", 5), 5u);
  EXPECT_TRUE(file.flush());
  EXPECT_TRUE(file.close());
  EXPECT_FALSE(file.isOpen());
  EXPECT_FALSE(file.open((home.path() + "/missing/dir/f").c_str(), "r"));
}
