// The command lines of the three programs, each run as its own process with a
// fresh home, configuration, runtime and temporary folder: --help and --version
// answer and do nothing else; bad options are refused with exit status 2.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
  int exit = -1;
  std::string out;
  std::string err;
  std::vector<std::string> made;  // what the program left in its folders
};

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Runs `program` with `arguments`, every folder it could write to inside an empty
// folder of its own, and no session bus that could be reached.
Outcome run(const std::string& program, const std::vector<std::string>& arguments) {
  TemporaryFolder root;
  const fs::path home = root.path() / "home";
  fs::create_directories(home);
  std::vector<std::string> argv = {
      "sh", "-c", "exec \"$0\" \"$@\" >'" + root.file("out") + "' 2>'" + root.file("err") + "'",
      program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  Outcome outcome;
  outcome.exit = ChildProcess::run(
      argv, {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / "config").string(),
             "XDG_RUNTIME_DIR=" + (home / "run").string(), "TMPDIR=" + (home / "tmp").string(),
             "DBUS_SESSION_BUS_ADDRESS=unix:path=" + (home / "bus").string(),
             "TALLOWBOX_BASE_URL=http://127.0.0.1:9/TallowboxRestService/"});
  outcome.out = contents(root.file("out"));
  outcome.err = contents(root.file("err"));
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(home)) {
    outcome.made.push_back(entry.path().lexically_relative(home).string());
  }
  return outcome;
}

struct Program {
  std::string name;
  std::string path;
};

const std::vector<Program> kPrograms = {{"SharedFilesXpcService", SERVICE_PROGRAM},
                                        {"tallowbox-server", SERVER_PROGRAM},
                                        {"tallowbox-call", CALL_PROGRAM}};

TEST(CommandLineTest, HelpAndVersionAnswerWithoutStartingAnythingAndAnUnknownOptionExitsTwo) {
  for (const Program& program : kPrograms) {
    SCOPED_TRACE(program.name);

    Outcome help = run(program.path, {"--help"});
    EXPECT_EQ(help.exit, 0) << help.err;
    EXPECT_TRUE(help.out.starts_with("Usage: " + program.name + " ")) << help.out;
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.made, std::vector<std::string>{});

    Outcome version = run(program.path, {"--version"});
    EXPECT_EQ(version.exit, 0) << version.err;
    EXPECT_EQ(version.out, program.name + " 0.1\n");
    EXPECT_EQ(version.err, "");
    EXPECT_EQ(version.made, std::vector<std::string>{});

    Outcome unknown = run(program.path, {"--frobnicate"});
    EXPECT_EQ(unknown.exit, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_TRUE(unknown.err.starts_with(
        program.name + ": unknown option --frobnicate\nUsage: " + program.name + " "))
        << unknown.err;
    EXPECT_EQ(unknown.made, std::vector<std::string>{});
  }
}

TEST(CommandLineTest, TheServerRefusesAMissingOrUnusablePortWithExitTwoAndDoesNotListen) {
  Outcome missing = run(SERVER_PROGRAM, {"--port"});
  EXPECT_EQ(missing.exit, 2);
  EXPECT_TRUE(missing.err.starts_with("tallowbox-server: --port needs a value\nUsage: "))
      << missing.err;

  Outcome unusable = run(SERVER_PROGRAM, {"--port", "86420"});
  EXPECT_EQ(unusable.exit, 2);
  EXPECT_TRUE(
      unusable.err.starts_with("tallowbox-server: invalid value '86420' for --port\nUsage: "))
      << unusable.err;
  EXPECT_EQ(unusable.out, "");
}

}  // namespace
