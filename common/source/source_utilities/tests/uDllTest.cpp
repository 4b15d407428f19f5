#include "source_utilities/uDll.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "source_utilities/uEnvironment.hpp"

using QX_NLV::uDll;

// libm is on every Linux machine; it stands in for a tool library.
TEST(uDllTest, NameWithAndWithoutExtensionLoadTheSameLibrary) {
  uDll plain, dotted;
  ASSERT_TRUE(plain.FindAndLoad("libm.so.6", 0)) << plain.errorText();
  ASSERT_TRUE(dotted.FindAndLoad("libm.so.6.dll", 0)) << dotted.errorText();
  std::string a, b;
  EXPECT_EQ(plain.modulePath(a), dotted.modulePath(b));
  EXPECT_NE(plain.symbol("cos"), nullptr);
  EXPECT_TRUE(plain.FindAndLoad("anything", 0));  // already loaded
}

TEST(uDllTest, FailuresKeepTheReason) {
  uDll none;
  EXPECT_FALSE(none.FindAndLoad(nullptr, 0));
  EXPECT_FALSE(none.FindAndLoad(".dll", 0));
  uDll missing;
  EXPECT_FALSE(missing.FindAndLoad("no_such_tool_library", 0));
  EXPECT_EQ(missing.errorText().rfind("failed to load libno_such_tool_library.so with error code ", 0), 0u)
      << missing.errorText();
  EXPECT_EQ(missing.symbol("x"), nullptr);
}

// A pinned library stays in the process after its last handle is closed; an
// unpinned one leaves with it. libbz2 is a library the test does not link.
TEST(uDllTest, PinnedLibraryOutlivesItsLastClose) {
  constexpr const char* kLibrary = "libbz2.so.1";
  auto loaded = [&] {
    void* handle = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
  };
  if (loaded()) GTEST_SKIP() << kLibrary << " is part of the test program";
  {
    uDll unpinned;
    if (!unpinned.FindAndLoad(kLibrary, 0)) GTEST_SKIP() << unpinned.errorText();
  }
  EXPECT_FALSE(loaded());
  {
    uDll pinned;
    ASSERT_TRUE(pinned.FindAndLoad(kLibrary, 0)) << pinned.errorText();
    EXPECT_TRUE(pinned.pin());
  }
  EXPECT_TRUE(loaded());
  EXPECT_FALSE(uDll().pin());
}

TEST(uDllTest, ModeAtOrAboveTheNoModeMarkIsStoredAsZero) {
  EXPECT_EQ(uDll("x", 0xFFFFFFFEu).mode(), 0u);
  EXPECT_EQ(uDll("x", 5).mode(), 5u);
}

TEST(BaseDirectoryTest, IsTheTestProgramPathWhenNotUnderABase) {
  std::string base = QX_NLV::baseDirectory();
  EXPECT_FALSE(base.empty());
  EXPECT_EQ(base.find("vsk_base"), std::string::npos);
}
