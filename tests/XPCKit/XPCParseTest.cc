// The conversions between XPC objects and the service's values, odd corners kept.
#include "XPCKit/XPCParse.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <unordered_set>

#include "Platform/ValueError.h"
#include "XPCKit/XPCUUID.h"
#include "support/TemporaryFolder.h"

namespace {

XPCObject::Descriptor openDescriptor() {
  return std::make_shared<const FileHandle>(::dup(STDIN_FILENO));
}

}  // namespace

TEST(XPCParseTest, BooleanFalseGoesOutAsDoubleZeroWhileTrueStaysABool) {
  EXPECT_EQ(XPCParse::newXPCObject(Value::boolean(true)), XPCObject::boolean(true));
  EXPECT_EQ(XPCParse::newXPCObject(Value::boolean(false)), XPCObject::real(0.0));
  EXPECT_EQ(XPCParse::newXPCObject(Value::integer(-5)), XPCObject::int64(-5));
  EXPECT_EQ(XPCParse::newXPCObject(Value::unsignedInteger(18446744073709551615ULL)),
            XPCObject::uint64(18446744073709551615ULL));
  EXPECT_EQ(XPCParse::newXPCObject(Value::real(2.5)), XPCObject::real(2.5));

  // And back, each as a number of its own type.
  auto back = [](const XPCObject& object) {
    return XPCParse::objectWithXPCObject(object)->objCType();
  };
  EXPECT_EQ(back(XPCObject::boolean(false)), 'c');
  EXPECT_EQ(back(XPCObject::int64(1)), 'q');
  EXPECT_EQ(back(XPCObject::uint64(1)), 'Q');
  EXPECT_EQ(back(XPCObject::real(1)), 'd');
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::uint64(7)), Value::unsignedInteger(7));
}

TEST(XPCParseTest, ArrayElementAfterOneThatConvertsToNothingIsInsertedPastTheEndAndRaises) {
  const XPCObject gap = XPCObject::sharedMemory(openDescriptor());
  try {
    XPCParse::objectWithXPCObject(
        XPCObject::array({XPCObject::string("a"), gap, XPCObject::string("c")}));
    ADD_FAILURE() << "the third element's insertion at index 2 went through";
  } catch (const ValueError& e) {
    EXPECT_STREQ(e.what(), "insertObject:atIndex: index 2 beyond bounds [0 .. 0]");
  }
  EXPECT_THROW(XPCParse::objectWithXPCObject(XPCObject::array({XPCObject(), XPCObject::int64(1)})),
               ValueError);
  // Nothing converts to nothing after the last element: the array is just shorter.
  EXPECT_EQ(XPCParse::objectWithXPCObject(
                XPCObject::array({XPCObject::string("a"), XPCObject::string("b"), gap})),
            Value(Value::Array{"a", "b"}));
  // An inner array's failure is the message's failure.
  EXPECT_THROW(XPCParse::objectWithXPCObject(XPCObject::dictionary(
                   {{"list", XPCObject::array({XPCObject(), XPCObject::boolean(true)})}})),
               ValueError);
}

TEST(XPCParseTest, SharedMemoryNullErrorsAndBadUTF8ConvertToNothingAndVanishFromDictionaries) {
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::sharedMemory(openDescriptor())), std::nullopt);
  EXPECT_EQ(XPCParse::dataWithXPCObject(XPCObject::sharedMemory(openDescriptor())), std::nullopt);
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject()), std::nullopt);
  EXPECT_EQ(
      XPCParse::objectWithXPCObject(XPCObject::error(XPCObject::ConnectionError::kInterrupted)),
      std::nullopt);
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::string("caf\xc3\xa9")), Value("caf\xc3\xa9"));
  for (const char* bad : {"\xff", "caf\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    EXPECT_EQ(XPCParse::stringWithXPCObject(XPCObject::string(bad)), std::nullopt) << bad;
  }
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::data({0, 1, 255})),
            Value(Value::Data{0, 1, 255}));

  const XPCObject received = XPCObject::dictionary({
      {"kept", XPCObject::string("x")},
      {"null", XPCObject()},
      {"memory", XPCObject::sharedMemory(openDescriptor())},
      {"bad text", XPCObject::string("\xfe")},
      {"\xfe key", XPCObject::string("y")},
  });
  EXPECT_EQ(XPCParse::objectWithXPCObject(received), Value(Value::Dictionary{{"kept", "x"}}));

  const Value sent(Value::Dictionary{{"null", Value(Value::Null{})},
                                     {"list", Value(Value::Array{Value(Value::Null{}), "z"})},
                                     {"text", "t"}});
  EXPECT_EQ(XPCParse::newXPCObject(sent),
            XPCObject::dictionary({{"list", XPCObject::array({XPCObject::string("z")})},
                                   {"text", XPCObject::string("t")}}));
  EXPECT_EQ(XPCParse::newXPCObject(Value(Value::Null{})), std::nullopt);
}

TEST(XPCParseTest, DatesTravelInNanosecondsTruncatedAndComeBackInSeconds) {
  EXPECT_EQ(XPCParse::newXPCObject(Value(Value::Date{1.5})), XPCObject::date(1500000000));
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::date(1500000000)), Value(Value::Date{1.5}));
  EXPECT_EQ(XPCParse::newXPCObject(Value(Value::Date{-0.0000000019})), XPCObject::date(-1))
      << "truncated toward zero";
  EXPECT_EQ(XPCParse::newXPCObject(Value(Value::Date{1e300})),
            XPCObject::date(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(XPCParse::newXPCObject(Value(Value::Date{std::nan("")})),
            XPCObject::date(std::numeric_limits<std::int64_t>::min()));
}

TEST(XPCParseTest, FileDescriptorArrivesAsADuplicateThatItsHandleCloses) {
  TemporaryFolder folder;
  std::ofstream(folder.file("f")) << "x";
  const auto received =
      std::make_shared<const FileHandle>(::open(folder.file("f").c_str(), O_RDONLY));
  std::optional<Value> handle = XPCParse::objectWithXPCObject(XPCObject::fileDescriptor(received));
  ASSERT_TRUE(handle && handle->fileHandle());
  const int copy = (*handle->fileHandle())->fileDescriptor();
  EXPECT_NE(copy, received->fileDescriptor());
  struct stat a {};
  struct stat b {};
  ASSERT_EQ(::fstat(copy, &a), 0);
  ASSERT_EQ(::fstat(received->fileDescriptor(), &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);
  EXPECT_EQ(::fcntl(copy, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  handle.reset();
  EXPECT_EQ(::fcntl(copy, F_GETFD), -1) << "closed with its handle";

  // Going out, the handle's own descriptor travels.
  const Value out(received);
  EXPECT_EQ(*XPCParse::newXPCObject(out)->descriptor(), received);
}

TEST(XPCParseTest, UUIDsAreEqualAndHashByTheirDescription) {
  const XPCObject::UUID bytes = {0x68, 0x75, 0x3a, 0x44, 0x4d, 0x6f, 0x12, 0x26,
                                 0x9c, 0x60, 0x00, 0x50, 0xe4, 0xc0, 0x00, 0x67};
  std::optional<XPCUUID> uuid = XPCUUID::uuidWithXPCObject(XPCObject::uuid(bytes));
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->string(), "68753A44-4D6F-1226-9C60-0050E4C00067");
  EXPECT_EQ(uuid->description(), "<XPCUUID 68753A44-4D6F-1226-9C60-0050E4C00067>");
  EXPECT_TRUE(uuid->isEqual(XPCUUID(bytes)));
  EXPECT_EQ(uuid->hash(), XPCUUID(bytes).hash());
  EXPECT_EQ(uuid->newXPCObject(), XPCObject::uuid(bytes));
  EXPECT_EQ(XPCParse::objectWithXPCObject(XPCObject::uuid(bytes)), Value(bytes));
  EXPECT_EQ(XPCUUID::uuidWithXPCObject(XPCObject::string("68753A44")), std::nullopt);

  std::unordered_set<std::string> seen;
  for (int i = 0; i < 100; ++i) seen.insert(XPCUUID::uuid().string());
  EXPECT_EQ(seen.size(), 100U) << "random every time";
  EXPECT_EQ(XPCUUID::uuid().string()[14], '4') << "a random (version 4) UUID";
}
