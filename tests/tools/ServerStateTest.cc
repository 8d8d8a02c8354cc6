#include <gtest/gtest.h>

#include <fstream>

#include "ServerState.h"
#include "support/TemporaryFolder.h"

using nlohmann::json;

namespace {

constexpr const char* kQuery = "MAC/SharedFiles.svc/GetSharedFilesTransferData";

json ask(ServerState& state, const json& body) { return *state.answer(kQuery, body.dump()); }

TEST(ServerStateTest, PendingWorkIsAnsweredForTheAskingComputerOfItsOwnUser) {
  ServerState state;
  state.load(R"({"users": {"U1": {"computers": ["C1"]}, "U2": {"computers": "C2"}},
                 "computers": {"C1": {"OwnerComputers": [{"NickName": "Ann"}]},
                               "C2": {"FileToTransfer": [{"FileID": "7"}]}}})");
  EXPECT_EQ(ask(state, {{"UserID", "U1"}, {"ComputerID", "C1"}}),
            json::parse(R"({"ReturnStatus": "0", "OwnerComputers": [{"NickName": "Ann"}],
                            "SharedfoldersWithStatus": [], "FileToTransfer": [],
                            "RecFileFromTransfer": []})"));
  const json refused = {{"ReturnStatus", "1"}};
  EXPECT_EQ(ask(state, {{"UserID", "U9"}, {"ComputerID", "C1"}}), refused) << "unknown user";
  EXPECT_EQ(ask(state, {{"UserID", "U1"}, {"ComputerID", "C2"}}), refused) << "not theirs";
  EXPECT_EQ(ask(state, {{"UserID", "U2"}, {"ComputerID", "C2"}}), refused)
      << "list of the wrong kind";
  EXPECT_EQ(ask(state, {{"ComputerID", "C1"}}), refused) << "no user";
  EXPECT_EQ(*state.answer(kQuery, "not JSON"),
            json({{"ReturnStatus", "1"}, {"error", "the body is not a JSON object"}}));

  // Without users every computer is answered; one with nothing pending too.
  state.merge({{"users", nullptr}});
  EXPECT_EQ(ask(state, {{"ComputerID", "C2"}})["FileToTransfer"],
            json::parse(R"([{"FileID": "7"}])"));
  EXPECT_EQ(ask(state, {{"ComputerID", "C3"}})["OwnerComputers"], json::array());
}

TEST(ServerStateTest, BusyServerListsOneEntryOfEachListPerReplyUntilEachIsTaken) {
  ServerState state;
  state.load(R"({"computers": {"C1": {"RecFileFromTransfer": [{"SavedFileID": "1"},
                                                               {"SavedFileID": "2"}],
                                      "OwnerComputers": [{"NickName": "Ann"}]}},
                 "faults": {"listOnePerReply": true}})");
  const json reply = ask(state, {{"ComputerID", "C1"}});
  EXPECT_EQ(reply["RecFileFromTransfer"], json::parse(R"([{"SavedFileID": "1"}])"));
  EXPECT_EQ(reply["OwnerComputers"], json::parse(R"([{"NickName": "Ann"}])"));
  EXPECT_EQ(state.document()["computers"]["C1"]["RecFileFromTransfer"].size(), 2U)
      << "the rest waits for a later reply";
  EXPECT_THROW(state.merge({{"faults", {{"listOnePerReply", "yes"}}}}), std::exception);
  state.merge({{"faults", {{"listOnePerReply", false}}}});
  EXPECT_EQ(ask(state, {{"ComputerID", "C1"}})["RecFileFromTransfer"].size(), 2U);
}

TEST(ServerStateTest, ErrorReportsAreKeptAndChangesMustBeObjects) {
  ServerState state;
  EXPECT_EQ(*state.answer("MAC/ErrorLog.svc/LogError", R"({"ClassName": "X"})"),
            json({{"ReturnStatus", "0"}}));
  EXPECT_EQ(state.snapshot()["errorLog"], json::parse(R"([{"ClassName": "X"}])"));
  EXPECT_FALSE(state.answer("MAC/Other.svc/Op", "{}")) << "served by the default reply";

  EXPECT_THROW(state.load("[1, 2]"), json::exception);
  EXPECT_THROW(state.merge(5), json::exception);
  EXPECT_THROW(state.load("{"), json::exception);
  EXPECT_EQ(state.snapshot()["errorLog"].size(), 1U) << "the state is unchanged";
}

TEST(ServerStateTest, DownloadsStartAtTheirLengthAndAcknowledgedFilesLeaveThePendingList) {
  TemporaryFolder folder;
  ServerState state;
  state.openStore(folder.file("store"));
  state.load(R"({"saved": {"S1": {"text": "hello world"}, "S2": {"size": 100000}},
                 "computers": {"C2": {"RecFileFromTransfer": [{"SharedFileTransferID": "R1"},
                                                              {"SharedFileTransferID": "R2"}]}}})");
  const char* fromComputer = "MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer";
  auto asked = state.download(fromComputer, R"({"SavedFileID": "S1", "Length": "6"})");
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->offset, 6U);
  EXPECT_EQ(asked->size, 11U);
  std::ifstream bytes(asked->path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(bytes), {}), "hello world");
  EXPECT_EQ(state.download(fromComputer, R"({"SavedFileID": "S2", "Length": "0"})")->size, 100000U);
  EXPECT_EQ(state.download(fromComputer, R"({"SavedFileID": "none"})")->size, 0U);
  EXPECT_EQ(state.download(fromComputer, "not JSON")->size, 0U);
  EXPECT_FALSE(state.download("MAC/SharedFiles.svc/Other", "{}"));

  state.merge({{"faults", {{"cutDownloadAfter", 3}}}});
  EXPECT_EQ(state.download(fromComputer, R"({"SavedFileID": "S1"})")->cutAfter, 3U);
  EXPECT_EQ(state.download(fromComputer, R"({"SavedFileID": "S1"})")->cutAfter, UINT64_MAX)
      << "once";

  EXPECT_EQ(*state.answer("MAC/SharedFiles.svc/IsFileExistsInCloud", R"({"StrFullPath": "x"})"),
            json({{"ReturnStatus", "0"}, {"IsExists", "False"}}));
  state.answer("MAC/SharedFiles.svc/DeleteReceivedFileFromTransfer",
               R"({"SharedFileTransferID": "R1", "IsExists": "true"})");
  EXPECT_EQ(state.snapshot()["computers"]["C2"]["RecFileFromTransfer"],
            json::parse(R"([{"SharedFileTransferID": "R2"}])"));
  state.answer("MAC/SharedFiles.svc/UpdateFileReceived", R"({"SharedFileTransferID": "R2"})");
  EXPECT_TRUE(state.snapshot()["computers"]["C2"]["RecFileFromTransfer"].empty());
}

}  // namespace
