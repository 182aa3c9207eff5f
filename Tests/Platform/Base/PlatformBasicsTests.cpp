// The platform basics: assertions, the debug log, objects and private folders.
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Base/Assert.h"
#include "Platform/Base/Error.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/PrivateFolder.h"
#include "Platform/Serialization/Object.h"
#include "Platform/HTTP/URL.h"
#include "Tests/Support/Files.h"
#include "Tests/Support/LogCapture.h"

namespace vkq::platform {
namespace {

// (A symbolic link in its place is refused too: see the agent's download tests.)
TEST(PrivateFolder, IsTheUsersAloneAndRefusedWhenAnotherUsersOne) {
  const vkq::testing::PrivateTemporaryDirectory temporary;              // restores TMPDIR and XDG_CACHE_HOME
  ::setenv("XDG_CACHE_HOME", (temporary.path() / "cache").c_str(), 1);  // comes first
  const std::filesystem::path folder = privateFolderPath("x");
  ASSERT_EQ(folder, temporary.path() / "cache/x");
  std::filesystem::create_directories(folder);  // as an earlier version left it: 0777 less the umask
  ASSERT_TRUE(preparePrivateFolder(folder, nullptr));
  EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms::owner_all);
  // Root can give it to another user: then it is refused.
  EXPECT_TRUE(::geteuid() != 0 || ::chown(folder.c_str(), 65534, 65534) != 0 || !preparePrivateFolder(folder, nullptr));
}

TEST(Assert, AssertionsNameTheConditionFileAndLineAndGoToTheInstalledHandler) {
  const int count = 0;
  const int line = __LINE__ + 2;
  try {
    VKQParameterAssert(count > 0 && count < 10);
    FAIL() << "no assertion";
  } catch (const InternalInconsistencyException& failure) {
    EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: count > 0 && count < 10");
    EXPECT_TRUE(failure.file().ends_with("Tests/Platform/Base/PlatformBasicsTests")) << failure.file();
    EXPECT_EQ(failure.line(), line);
  }
  std::string seen;
  setAssertionHandler([&seen](const AssertionFailure& failure) {
    seen = failure.description;
    throw 0;
  });
  EXPECT_THROW(VKQAssert(false, "requestTask should not be nil"), int);
  setAssertionHandler(nullptr);
  EXPECT_EQ(seen, "requestTask should not be nil");
  // Source paths are trimmed to the innermost Classes folder (a class's other files, such
  // as "+Downloads", report as the class: the agent's assertion tests).
  const std::pair<const char*, const char*> cases[] = {
      {"/a/Classes/b/Classes/X.cpp", "Classes/X"},  // the innermost folder
      {"/a/MyClasses/X.cpp", "/a/MyClasses/X"},     // not a Classes folder
      {"/a/Classes/v1.2/X", "Classes/v1.2/X"},       // a dot in a folder is kept
  };
  for (const auto& [path, trimmed] : cases) EXPECT_EQ(sourcePathFromClasses(path), trimmed);
}

TEST(Log, RendersEachPieceIncludingAbsentObjects) {
  const vkq::testing::LogCapture capture;
  const std::optional<URL> noURL;  // a temporary one makes GCC 12 warn falsely
  DDDebug("request faild", 42, URL::URLWithString("http://h/x"), noURL, std::shared_ptr<const Error>(),
          static_cast<const char*>(nullptr), nullptr, makeError("d", 1));
  const LogEntry expected{"request faild", "42", "http://h/x", "(null)", "(null)", "(null)", "(null)",
                          "Error Domain=d Code=1 \"The operation couldn't be completed. (d error 1.)\""};
  EXPECT_EQ(capture.entries(), std::vector<LogEntry>{expected});
}

TEST(Object, CopiesShareTheirBytesAndEachKindDescribesItself) {
  const Object original(Bytes{1, 2});
  Object(original).data()->push_back(3);
  EXPECT_EQ(*original.data(), (Bytes{1, 2, 3}));
  EXPECT_EQ(Object(Bytes{1, 2, 3}), original);
  EXPECT_NE(Object(JSON("a")), Object(bytesFromString("a")));  // same content, other kind
  const std::pair<Object, const char*> cases[] = {
      {Object(), "(null)"},
      {Object(std::shared_ptr<Bytes>()), "(null)"},  // no bytes is absence
      {Object(JSON(nullptr)), "null"},               // JSON null is a value
      {Object(Bytes{0x00, 0x01, 0xab, 0xff, 0x10}), "<0001abff 10>"},
  };
  for (const auto& [object, description] : cases) EXPECT_EQ(object.description(), description);
}

}  // namespace
}  // namespace vkq::platform
