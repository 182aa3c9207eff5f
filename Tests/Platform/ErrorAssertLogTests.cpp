#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "Platform/Assert.h"
#include "Platform/Error.h"
#include "Platform/Log.h"
#include "Platform/URL.h"

namespace vkq::platform {
namespace {

TEST(Error, DescriptionFallsBackFromDescriptionToReasonToDomainAndCode) {
  ErrorUserInfo info;
  info.localizedFailureReason = "reason";
  EXPECT_EQ(Error("d", -1016, info).localizedDescription(), "reason");
  info.localizedDescription = "described";
  EXPECT_EQ(Error("d", -1016, info).description(), "Error Domain=d Code=-1016 \"described\"");
  EXPECT_EQ(Error("vkq.x", 7).localizedDescription(), "The operation couldn't be completed. (vkq.x error 7.)");
}

TEST(Assert, ParameterAssertionNamesTheConditionFileAndLine) {
  const int count = 0;
  const int line = __LINE__ + 2;
  try {
    VKQParameterAssert(count > 0 && count < 10);
    FAIL() << "no assertion";
  } catch (const InternalInconsistencyException& failure) {
    EXPECT_STREQ(failure.what(), "Invalid parameter not satisfying: count > 0 && count < 10");
    EXPECT_EQ(failure.description(), failure.what());
    EXPECT_TRUE(failure.file().ends_with("Tests/Platform/ErrorAssertLogTests")) << failure.file();
    EXPECT_EQ(failure.line(), line);
  }
  EXPECT_NO_THROW(VKQParameterAssert(count == 0));
}

TEST(Assert, FixedTextAssertionGoesToTheInstalledHandler) {
  struct Escape {
    AssertionFailure failure;
  };
  setAssertionHandler([](const AssertionFailure& failure) { throw Escape{failure}; });
  try {
    VKQAssert(false, "requestTask should not be nil");
    FAIL() << "no assertion";
  } catch (const Escape& escape) {
    EXPECT_EQ(escape.failure.description, "requestTask should not be nil");
  }
  setAssertionHandler(nullptr);
  EXPECT_THROW(VKQAssert(false, "x"), InternalInconsistencyException);
}

TEST(Assert, SourcePathsAreTrimmedToTheClassesFolder) {
  const std::pair<const char*, const char*> cases[] = {
      {"/any/where/Classes/Codec/NRDByteArray.cpp", "Classes/Codec/NRDByteArray"},
      {"Classes/VKQNetworkAgent.cpp", "Classes/VKQNetworkAgent"},
      {"/a/Classes/b/Classes/X.cpp", "Classes/X"},  // the innermost folder
      {"/a/MyClasses/X.cpp", "/a/MyClasses/X"},     // not a Classes folder
      {"/a/Classes/v1.2/X", "Classes/v1.2/X"},       // a dot in a folder is kept
      {"/src/Other.cpp", "/src/Other"},
  };
  for (const auto& [path, trimmed] : cases) EXPECT_EQ(sourcePathFromClasses(path), trimmed);
}

// Captures log entries while alive.
struct LogCapture {
  LogCapture() {
    setLogSink([this](const LogEntry& entry) { entries.push_back(entry); });
  }
  ~LogCapture() { setLogSink(nullptr); }
  std::vector<LogEntry> entries;
};

TEST(Log, RendersEachPieceIncludingAbsentObjects) {
  LogCapture capture;
  const std::shared_ptr<const Error> noError;
  const char* noText = nullptr;
  DDDebug("request faild", 42, -7L, true, 'c', URL::URLWithString("http://h/x"), std::optional<URL>(), noError,
          noText, nullptr, std::string("s"), makeError("d", 1));
  const LogEntry expected{"request faild", "42", "-7", "1", "c", "http://h/x", "(null)", "(null)", "(null)",
                          "(null)", "s", "Error Domain=d Code=1 \"The operation couldn't be completed. (d error 1.)\""};
  EXPECT_EQ(capture.entries, std::vector<LogEntry>{expected});
}

TEST(Log, NothingIsRenderedWithoutASink) {
  struct Counted {
    int* calls;
    std::string description() const { return std::to_string(++*calls); }
  };
  int calls = 0;
  DDDebug("text", Counted{&calls});
  EXPECT_EQ(calls, 0);
  {
    LogCapture capture;
    DDDebug(Counted{&calls});
    EXPECT_EQ(capture.entries, std::vector<LogEntry>{{"1"}});
  }
  DDDebug(Counted{&calls});
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace vkq::platform
