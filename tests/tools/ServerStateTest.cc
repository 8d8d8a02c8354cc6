#include <gtest/gtest.h>

#include "ServerState.h"

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
  EXPECT_EQ(*state.answer(kQuery, "not JSON"), refused);

  // Without users every computer is answered; one with nothing pending too.
  state.merge({{"users", nullptr}});
  EXPECT_EQ(ask(state, {{"ComputerID", "C2"}})["FileToTransfer"],
            json::parse(R"([{"FileID": "7"}])"));
  EXPECT_EQ(ask(state, {{"ComputerID", "C3"}})["OwnerComputers"], json::array());
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

}  // namespace
