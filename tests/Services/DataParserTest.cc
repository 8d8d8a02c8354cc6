#include "Services/DataParser.h"

#include <gtest/gtest.h>

#include "Services/QueryParser.h"
#include "Services/Records/CheckFileExistsInTransfersResponseData.h"
#include "Services/Records/DeleteReceivedFileFromTransferResponseData.h"
#include "Services/Records/GetSharedFilesTransferDataQuery.h"
#include "Services/Records/SendPasswordToMailIdResponseData.h"
#include "Services/Records/UpdateBSSendStreamStartedResponseData.h"
#include "Services/Records/UpdateFileUploadResponseData.h"

using nlohmann::json;

namespace {

GetSharedFilesTransferDataResponseData transferData(const char* text) {
  return DataParser::parseGetSharedFilesTransferDataResponseData(json::parse(text));
}

TEST(DataParserTest, TransferDataWithoutListsHasFourEmptyListsAndNoStatus) {
  auto data = transferData("{}");
  EXPECT_TRUE(data.fileToTransferArray.empty());
  EXPECT_TRUE(data.OwnerComputersArray.empty());
  EXPECT_TRUE(data.RecFileFromTransferArray.empty());
  EXPECT_TRUE(data.SharedfoldersWithStatusArray.empty());
  EXPECT_FALSE(data.ReturnStatus);
  EXPECT_TRUE(transferData(R"({"OwnerComputers": {}})").OwnerComputersArray.empty())
      << "an empty object enumerates nothing";
}

TEST(DataParserTest, TransferDataKeepsServerOrderValuesAsDecodedAndEachKeySpelling) {
  auto data = transferData(R"({
    "ReturnStatus": "0", "Extra": 1,
    "FileToTransfer": [
      {"SharedFileTransferID": 41, "FullPathfromFileTable": "T\\a", "NewFullPath": "T\\b",
       "OwnerFileID": "o", "XMLFileID": null, "Unknown": "x"},
      {"SharedFileTransferID": "40", "FullPathFromFileTable": "wrong spelling"}],
    "RecFileFromTransfer": [
      {"FullPathFromFileTable": "R\\a", "FullPathfromFileTable": "wrong spelling",
       "OwnerFileID": "o2", "NickName": "Ann", "SavedFileID": "s", "SharedFolderFileID": "sf",
       "ToComputerID": "c9"}],
    "OwnerComputers": [
      {"NickName": "Ann-Laptop", "Status": 1, "ComputerID": "c1", "MailID": "a@x",
       "UserComputerMapID": "m1"},
      {"NickName": 7, "Status": {"not": "a status"}}],
    "SharedfoldersWithStatus": [{"FileID": "f2", "SharedStatus": "0"},
                                {"FileID": "f1", "SharedStatus": "1"}]
  })");
  ASSERT_EQ(data.fileToTransferArray.size(), 2U);
  const FileToTransfer& sent = data.fileToTransferArray[0];
  EXPECT_EQ(sent.sharedFileTransferId, json(41)) << "a number stays a number";
  EXPECT_EQ(sent.fullPathfromFileTable, json("T\\a"));
  EXPECT_EQ(sent.fullPathNew, json("T\\b"));
  EXPECT_EQ(sent.ownerFileID, json("o"));
  EXPECT_EQ(sent.xmlFileId, json(nullptr)) << "null stays null, not absent";
  EXPECT_FALSE(sent.tallowboxPath);
  EXPECT_FALSE(sent.error);
  EXPECT_EQ(data.fileToTransferArray[1].sharedFileTransferId, json("40"));
  EXPECT_FALSE(data.fileToTransferArray[1].fullPathfromFileTable)
      << "\"FullPathFromFileTable\" is the receiving side's spelling";

  ASSERT_EQ(data.RecFileFromTransferArray.size(), 1U);
  const RecFileFromTransfer& received = data.RecFileFromTransferArray[0];
  EXPECT_EQ(received.fullPathFromFileTable, json("R\\a"));
  EXPECT_EQ(received.ownerFileId, json("o2"));
  EXPECT_EQ(received.nickName, json("Ann"));
  EXPECT_EQ(received.savedFileId, json("s"));
  EXPECT_EQ(received.sharedFolderFileId, json("sf"));
  EXPECT_EQ(received.toComputerId, json("c9"));

  ASSERT_EQ(data.OwnerComputersArray.size(), 2U);
  EXPECT_EQ(data.OwnerComputersArray[0].nickName, json("Ann-Laptop"));
  EXPECT_EQ(data.OwnerComputersArray[0].status, json(1));
  EXPECT_EQ(data.OwnerComputersArray[0].mailId, json("a@x"));
  EXPECT_EQ(data.OwnerComputersArray[0].userComputerMapId, json("m1"));
  EXPECT_EQ(data.OwnerComputersArray[1].nickName, json(7));
  EXPECT_EQ(data.OwnerComputersArray[1].status, json({{"not", "a status"}}));

  ASSERT_EQ(data.SharedfoldersWithStatusArray.size(), 2U);
  EXPECT_EQ(data.SharedfoldersWithStatusArray[0].fileId, json("f2")) << "server order";
  EXPECT_EQ(data.SharedfoldersWithStatusArray[1].sharedStatus, json("1"));
  EXPECT_EQ(data.ReturnStatus, json("0"));
}

TEST(DataParserTest, ListsAndElementsOfTheWrongKindThrowInsteadOfGuessing) {
  for (const char* reply :
       {R"({"FileToTransfer": null})", R"({"OwnerComputers": {"a": 1}})",
        R"({"RecFileFromTransfer": "x"})", R"({"SharedfoldersWithStatus": 3})",
        R"({"OwnerComputers": ["a string"]})", R"({"FileToTransfer": [[1]]})",
        R"({"SharedfoldersWithStatus": [{"FileID": "1"}, null]})", R"([])", R"("text")"}) {
    EXPECT_THROW(transferData(reply), std::invalid_argument) << reply;
  }
}

TEST(DataParserTest, OrdinaryParsersReadOnlyTheirOwnKeys) {
  auto cloud = DataParser::parseIsFileExistsInCloudResponseData(json({{"ReturnStatus", "1"}}));
  EXPECT_EQ(cloud.returnStatus, json("1"));
  EXPECT_FALSE(cloud.isExists);
  EXPECT_FALSE(cloud.error);

  auto synced = DataParser::parseSyncFilesInTableAndCloudResponseData(
      json::array({{{"FileID", 2}, {"ReturnStatus", "1"}, {"error", {{"m", 1}}}}}));
  ASSERT_EQ(synced.size(), 1U);
  EXPECT_EQ(synced[0].fileId, json(2));
  EXPECT_FALSE(synced[0].error) << "the synchronisation leaves error unread";

  EXPECT_THROW(DataParser::parseLogErrorResponseData(json::array()), std::invalid_argument);
  EXPECT_THROW(DataParser::parseUploadFileWithStreamResponseData(json("0")), std::invalid_argument);
  EXPECT_THROW(DataParser::parseSyncFilesInTableAndCloudResponseData(json({{"a", 1}})),
               std::invalid_argument);
  EXPECT_TRUE(DataParser::parseSyncFilesInTableAndCloudResponseData(json::object()).empty());
}

TEST(DataParserTest, RepliesOfASharedShapeParseIntoTheirOperationsOwnRecords) {
  const json reply = {
      {"ReturnStatus", "1"}, {"ReturnMsg", "m"}, {"ByteStartPos", 7}, {"error", {{"m", 1}}}};
  const UpdateFileUploadResponseData upload = DataParser::parseUpdateFileUploadResponseData(reply);
  EXPECT_EQ(upload.returnStatus, json("1"));
  EXPECT_EQ(upload.error, reply.at("error"));
  const UpdateBSSendStreamStartedResponseData started =
      DataParser::parseUpdateBSSendStreamstartedResponseData(reply);
  EXPECT_EQ(started.returnStatus, json("1"));
  EXPECT_FALSE(started.error) << "the stream notifications leave error unread";
  const SendPasswordToMailIdResponseData mail =
      DataParser::parseSendPasswordToMailIdResponseData(reply);
  EXPECT_EQ(mail.returnMsg, json("m"));
  EXPECT_EQ(mail.error, reply.at("error"));
  const CheckFileExistsInTransfersResponseData held =
      DataParser::parseCheckFileExistsInTransfersResponseData(reply);
  EXPECT_EQ(held.byteStartPos, json(7));
  EXPECT_EQ(held.returnStatus, json("1"));
  const DeleteReceivedFileFromTransferResponseData deleted =
      DataParser::parseDeleteReceivedFileFromTransferResponseData(reply);
  EXPECT_EQ(deleted.ReturnStatus, json("1"));
  EXPECT_EQ(deleted.error, reply.at("error"));
}

TEST(QueryParserTest, AbsentPropertiesAreLeftOutAndValuesGoAsTheyAre) {
  GetSharedFilesTransferDataQuery query;
  EXPECT_EQ(QueryParser::parseGetSharedFilesTransferDataQuery(query).dump(), "{}") << "never null";
  query.userId = "u1";
  EXPECT_EQ(QueryParser::parseGetSharedFilesTransferDataQuery(query).dump(), R"({"UserID":"u1"})");
  query.computerId = 12;
  EXPECT_EQ(QueryParser::parseGetSharedFilesTransferDataQuery(query).dump(),
            R"({"UserID":"u1","ComputerID":12})");
  struct Change {
    std::string changeType, oldFullPath, fullPath, fileSize, tallowboxPath, isFile, computerId,
        fileModifiedDate, baseSystemFileID, fileID;
  };
  EXPECT_EQ(QueryParser::parseSyncFilesInTableAndCloudQuery(std::vector<Change>{}).dump(),
            R"({"syncData":[]})");
}

}  // namespace
