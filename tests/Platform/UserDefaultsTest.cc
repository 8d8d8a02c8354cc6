#include "Platform/UserDefaults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "Platform/FileSystemFaults.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "Platform/ValueError.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// Runs a command through the shell; returns its exit status and standard output.
std::pair<int, std::string> run(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, ""};
  char buffer[4096];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

const char* kSuiteXml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>computerIdKey</key><string>C-17</string>
  <key>userIdKey</key><string>42</string>
  <key>tallowboxPathKey</key><string>/home/ann &amp; bob/Documents</string>
  <key>count</key><integer>-7</integer>
  <key>ratio</key><real>2.5</real>
  <key>enabled</key><true/>
  <key>blob</key><data>AAEC</data>
  <key>when</key><date>2001-01-01T00:00:10Z</date>
  <key>SharedFileDataKey</key>
  <array>
    <dict><key>OwnerFileID</key><string>0</string><key>FileName</key><string>/t/Ann (Shared)</string></dict>
  </array>
</dict>
</plist>
)";

class UserDefaultsTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    environment.update([&](Environment& e) { e.configFolder = folder.path(); });
  }

  TemporaryFolder folder;
};

}  // namespace

TEST_F(UserDefaultsTest, SuiteWrittenByPlistutilIsReadAsWrittenInXmlAndBinary) {
  writeText(folder.file("source.plist"), kSuiteXml);
  for (const char* format : {"xml", "bin"}) {
    std::string suite = UserDefaults::pathOfSuite("Quentara.Tallowbox");
    ASSERT_EQ(
        run("plistutil -i " + folder.file("source.plist") + " -o '" + suite + "' -f " + format)
            .first,
        0);
    Value::Dictionary d = UserDefaults::persistentDomainForName("Quentara.Tallowbox");
    EXPECT_EQ(d.at("computerIdKey"), Value("C-17")) << format;
    EXPECT_EQ(d.at("userIdKey"), Value("42"));
    EXPECT_EQ(d.at("tallowboxPathKey"), Value("/home/ann & bob/Documents"));
    EXPECT_EQ(d.at("count").objCType(), 'q');
    EXPECT_EQ(d.at("count"), Value::integer(-7));
    EXPECT_EQ(d.at("ratio"), Value::real(2.5));
    EXPECT_EQ(d.at("enabled").objCType(), 'c');
    EXPECT_EQ(d.at("blob"), Value(Value::Data{0, 1, 2}));
    EXPECT_EQ(d.at("when"), Value(Value::Date{978307210.0}));
    const Value::Array* list = d.at("SharedFileDataKey").array();
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->size(), 1U);
    EXPECT_EQ(*(*list)[0].objectForKey("FileName"), Value("/t/Ann (Shared)"));
  }
}

TEST_F(UserDefaultsTest, WhatTheServiceStoresIsReadBackByPlistutil) {
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  Value::Array list = {Value(Value::Dictionary{{"OwnerFileID", Value("0")},
                                               {"FileName", Value("/t/<Ann> & \"Bob\" (Shared)")},
                                               {"Blocked", Value("1")}})};
  defaults.setObject(Value(list), "SharedFileDataKey");
  defaults.setObject(Value::integer(-3), "number");
  EXPECT_TRUE(defaults.synchronize());

  std::string suite = folder.file("Quentara.SharedFilesXpcService.plist");
  ASSERT_EQ(suite, UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService"));
  auto [status, xml] = run("plistutil -i '" + suite + "' -o - -f xml");
  ASSERT_EQ(status, 0);
  EXPECT_NE(xml.find("<key>SharedFileDataKey</key>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<string>/t/&lt;Ann&gt; &amp; \"Bob\" (Shared)</string>"), std::string::npos)
      << xml;
  EXPECT_NE(xml.find("<integer>-3</integer>"), std::string::npos) << xml;

  // And back: what plistutil rewrites in binary reads the same.
  ASSERT_EQ(run("plistutil -i '" + suite + "' -o '" + suite + "' -f bin").first, 0);
  EXPECT_EQ(defaults.objectForKey("SharedFileDataKey"), std::optional<Value>(Value(list)));
}

TEST_F(UserDefaultsTest, MissingSuiteIsEmptyAndReadsAreFresh) {
  EXPECT_TRUE(UserDefaults::persistentDomainForName("Quentara.Tallowbox").empty());
  EXPECT_FALSE(UserDefaults::standardUserDefaults().objectForKey("SharedFileDataKey"));

  writeText(folder.file("source.plist"), kSuiteXml);
  ASSERT_EQ(run("plistutil -i " + folder.file("source.plist") + " -o " +
                folder.file("Quentara.Tallowbox.plist"))
                .first,
            0);
  EXPECT_EQ(UserDefaults::persistentDomainForName("Quentara.Tallowbox").at("userIdKey"),
            Value("42"));
}

TEST_F(UserDefaultsTest, CorruptSuiteIsLoggedReadAsEmptyAndKeptAsideBeforeOverwrite) {
  LogCapture log;
  std::string suite = UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService");
  const std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>Shared";
  writeText(suite, garbage);

  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  EXPECT_FALSE(defaults.objectForKey("SharedFileDataKey"));
  EXPECT_FALSE(defaults.objectForKey("SharedFileDataKey"));
  std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 1U) << "logged once per version of the file";
  EXPECT_NE(lines[0].find("unreadable"), std::string::npos) << lines[0];
  EXPECT_EQ(readText(suite), garbage) << "reading never moves the file";

  defaults.setObject(Value("x"), "key");
  EXPECT_EQ(readText(suite + ".corrupt"), garbage);
  EXPECT_EQ(defaults.objectForKey("key"), std::optional<Value>(Value("x")));

  // A property list whose root is not a dictionary is unreadable too.
  writeText(folder.file("Quentara.Tallowbox.plist"),
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
  EXPECT_TRUE(UserDefaults::persistentDomainForName("Quentara.Tallowbox").empty());
}

// A binary property list of `depth` arrays, each holding the next.
std::string deepBinaryList(std::uint32_t depth) {
  auto bigEndian = [](std::string& out, std::uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
  };
  std::string list = "bplist00";
  std::vector<std::uint64_t> offsets;
  for (std::uint32_t i = 0; i < depth; ++i) {
    offsets.push_back(list.size());
    if (i + 1 < depth) {
      list.push_back(static_cast<char>(0xA1));
      bigEndian(list, i + 1, 4);
    } else {
      list.push_back(static_cast<char>(0xA0));
    }
  }
  const std::uint64_t table = list.size();
  for (std::uint64_t offset : offsets) bigEndian(list, offset, 4);
  list.append(6, '\0');
  list.push_back(4);  // offset width
  list.push_back(4);  // reference width
  bigEndian(list, depth, 8);
  bigEndian(list, 0, 8);
  bigEndian(list, table, 8);
  return list;
}

TEST_F(UserDefaultsTest, SuitesNestedAMillionDeepAreUnreadableNotTheEndOfTheProcess) {
  std::string deepXml = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (int i = 0; i < 1000000; ++i) deepXml += "<array>";
  for (int i = 0; i < 1000000; ++i) deepXml += "</array>";
  deepXml += "</plist>";
  std::string suite = UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService");
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  int round = 0;
  for (const std::string& contents : {deepXml, deepBinaryList(1000000)}) {
    LogCapture log;
    writeText(suite, contents);
    EXPECT_FALSE(defaults.objectForKey("SharedFileDataKey")) << round;
    EXPECT_FALSE(defaults.objectForKey("SharedFileDataKey")) << round;
    EXPECT_EQ(log.lines().size(), 1U) << "logged once";
    defaults.setObject(Value("x"), "key");
    const std::string aside = suite + (round == 0 ? ".corrupt" : ".corrupt.1");
    EXPECT_EQ(readText(aside), contents) << "kept aside whole, never over the earlier one";
    ++round;
  }
  // Nested to the bound, both forms still read.
  std::string atBound = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key>";
  for (int i = 0; i < 127; ++i) atBound += "<array>";
  for (int i = 0; i < 127; ++i) atBound += "</array>";
  writeText(suite, atBound + "</dict></plist>");
  EXPECT_TRUE(defaults.objectForKey("k"));
  EXPECT_TRUE(PropertyList::parse(deepBinaryList(128)));
  EXPECT_FALSE(PropertyList::parse(deepBinaryList(129)));
}

TEST_F(UserDefaultsTest, FifoOrDeviceAtASuitesPathReadsEmptyAtOnce) {
  std::string application = UserDefaults::pathOfSuite("Quentara.Tallowbox");
  ASSERT_EQ(::mkfifo(application.c_str(), 0600), 0);
  // With no writer, opening a FIFO to read would wait for ever.
  auto read = std::async(std::launch::async, [] {
    return UserDefaults::persistentDomainForName("Quentara.Tallowbox").empty();
  });
  ASSERT_EQ(read.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_TRUE(read.get());

  std::string own = UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService");
  std::filesystem::create_symlink("/dev/zero", own);
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  EXPECT_FALSE(defaults.objectForKey("SharedFileDataKey")) << "a device is never read";
  defaults.setObject(Value("x"), "key");
  EXPECT_TRUE(std::filesystem::is_symlink(own + ".corrupt")) << "the link kept aside as it was";
  EXPECT_EQ(defaults.objectForKey("key"), std::optional<Value>(Value("x")));
}

TEST_F(UserDefaultsTest, StoreThatCannotWriteFlushOrReplaceFailsAndLeavesThePreviousSuiteWhole) {
  auto faults = std::make_shared<FileSystemFaults>();
  environment.update([&](Environment& e) { e.fileSystemFaults = faults; });
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  defaults.setObject(Value("kept"), "key");
  const std::string suite = UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService");
  const std::string stored = readText(suite);

  const std::pair<std::function<void()>, int> cases[] = {
      {[&] { faults->failWritesAfter(100, ENOSPC); }, ENOSPC},
      {[&] { faults->failNext(FileSystemFaults::Call::kFsync, EIO); }, EIO},
      {[&] { faults->failNext(FileSystemFaults::Call::kRename, EIO); }, EIO},
  };
  for (const auto& [fail, expected] : cases) {
    faults->clear();
    fail();
    try {
      defaults.setObject(Value(std::string(1000, 'x')), "key");
      ADD_FAILURE() << "a store that failed was reported done";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), expected);
    }
    EXPECT_EQ(readText(suite), stored) << expected;
    EXPECT_EQ(defaults.objectForKey("key"), std::optional<Value>(Value("kept"))) << expected;
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(folder.path())) {
      names.push_back(item.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"Quentara.SharedFilesXpcService.plist"})
        << "no temporary file left beside it, " << expected;
  }

  faults->clear();  // the disk has room again
  defaults.setObject(Value("changed"), "key");
  EXPECT_EQ(defaults.objectForKey("key"), std::optional<Value>(Value("changed")));
}

TEST_F(UserDefaultsTest, ValuesAPropertyListCannotHoldAreRefusedAndNothingIsWritten) {
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  defaults.setObject(Value("kept"), "key");
  Value::Array withHandle = {Value(std::make_shared<const FileHandle>(-1))};
  EXPECT_THROW(defaults.setObject(Value(withHandle), "key"), ValueError);
  EXPECT_EQ(defaults.objectForKey("key"), std::optional<Value>(Value("kept")));
}

TEST_F(UserDefaultsTest, WriterKilledInAStormOfStoresNeverLeavesATornFile) {
  std::string suite = UserDefaults::pathOfSuite("Quentara.SharedFilesXpcService");
  std::string config = "XDG_CONFIG_HOME=" + folder.path().string();
  char* childEnvironment[] = {config.data(), nullptr};
  auto inodeOfSuite = [&] {
    struct stat st {};
    return ::stat(suite.c_str(), &st) == 0 ? st.st_ino : 0;
  };
  std::mt19937 random(20261121);
  int readsDuringStorm = 0;
  for (int round = 0; round < 25; ++round) {
    const ino_t before = inodeOfSuite();
    pid_t pid = 0;
    char* argv[] = {const_cast<char*>(PREFERENCE_STORM), nullptr};
    ASSERT_EQ(::posix_spawn(&pid, PREFERENCE_STORM, nullptr, nullptr, argv, childEnvironment), 0);
    // Every store replaces the file, so a new inode is this writer's first store.
    ASSERT_TRUE(waitUntil([&] { return inodeOfSuite() != before; }, std::chrono::seconds(60)))
        << "the writer never stored";
    auto until = std::chrono::steady_clock::now() +
                 std::chrono::milliseconds(std::uniform_int_distribution<int>(5, 60)(random));
    while (std::chrono::steady_clock::now() < until) {
      std::optional<Value> list =
          UserDefaults::standardUserDefaults().objectForKey("SharedFileDataKey");
      ASSERT_TRUE(list && list->array() != nullptr) << "reader saw a torn suite";
      ++readsDuringStorm;
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    std::optional<Value> list =
        UserDefaults::standardUserDefaults().objectForKey("SharedFileDataKey");
    ASSERT_TRUE(list && list->array() != nullptr && !list->array()->empty()) << "round " << round;
    ASSERT_EQ(run("plistutil -i '" + suite + "' -o /dev/null").first, 0) << "round " << round;
  }
  EXPECT_GT(readsDuringStorm, 0);
  EXPECT_FALSE(std::filesystem::exists(suite + ".corrupt"));
}

TEST_F(UserDefaultsTest, SuiteChangedByAnotherProcessBetweenTwoReadsIsNeverServedStale) {
  UserDefaults suite("Quentara.SharedFilesXpcService");
  const std::string path = suite.pathOfSuite("Quentara.SharedFilesXpcService");
  auto stored = [&] {
    std::optional<Value> value = suite.objectForKey("k");
    return value && value->string() ? *value->string() : std::string("<absent>");
  };
  auto plist = [](const std::string& text) {
    return PropertyList::xml(Value(Value::Dictionary{{"k", Value(text)}}));
  };
  suite.setObject(Value("ours"), "k");
  ASSERT_EQ(stored(), "ours");

  // Another file renamed into place (another inode).
  writeText(path + ".new", plist("renamed in"));
  ASSERT_EQ(::rename((path + ".new").c_str(), path.c_str()), 0);
  EXPECT_EQ(stored(), "renamed in");

  // The same file rewritten in place with the same length, and a later time.
  std::string same = plist("rewritten!");
  ASSERT_EQ(same.size(), plist("renamed in").size());
  writeText(path, same);
  const timespec later[2] = {{0, UTIME_OMIT}, {std::time(nullptr) + 60, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), later, 0), 0);
  EXPECT_EQ(stored(), "rewritten!");

  // A shorter file, then garbage: each read as it now is.
  writeText(path, plist("s"));
  EXPECT_EQ(stored(), "s");
  writeText(path, "garbage");
  EXPECT_EQ(stored(), "<absent>");
  ::unlink(path.c_str());
  EXPECT_EQ(stored(), "<absent>");
}

TEST_F(UserDefaultsTest, StoreOfWhatTheFileHoldsIsLeftOutAndAnEqualValueOfAnotherTypeIsWritten) {
  UserDefaults suite("Quentara.SharedFilesXpcService");
  const std::string path = suite.pathOfSuite("Quentara.SharedFilesXpcService");
  auto inode = [&] {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
  };
  const Value list(Value::Array{Value(Value::Dictionary{{"FileName", "/t/a.txt"}})});
  suite.setObject(list, "SharedFileDataKey");
  suite.setObject(Value::boolean(true), "enabled");
  const ino_t written = inode();

  // Each store writes a new file and renames it into place: the same file means
  // nothing was written.
  suite.setObject(list, "SharedFileDataKey");
  suite.setObject(Value::boolean(true), "enabled");
  EXPECT_EQ(inode(), written);

  suite.setObject(Value::integer(1), "enabled");
  EXPECT_NE(inode(), written);
  EXPECT_EQ(suite.objectForKey("enabled")->objCType(), 'q');
  EXPECT_EQ(*suite.objectForKey("SharedFileDataKey"), list);
}
