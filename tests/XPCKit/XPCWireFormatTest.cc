// The XPC wire layout, checked against byte strings written out here by hand,
// and the decoder's refusals.
#include "XPCKit/XPCWireFormat.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// The bytes of `hex`, two digits a byte; spaces are ignored.
Bytes bytes(const std::string& hex) {
  Bytes result;
  std::string digits;
  for (char c : hex) {
    if (std::isxdigit(static_cast<unsigned char>(c)) != 0) digits += c;
  }
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    result.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return result;
}

// Magic 0x42133742 and version 5, little-endian.
const std::string kHeader = "42371342 05000000 ";

XPCObject::Descriptor openDescriptor() {
  return std::make_shared<const FileHandle>(::dup(STDIN_FILENO));
}

// Why `payload` is refused; "" when it is not.
std::string refusal(const Bytes& payload, const std::vector<XPCObject::Descriptor>& sent = {}) {
  try {
    XPCWireFormat::decode(payload, sent);
  } catch (const XPCWireFormat::Refused& e) {
    return e.what();
  }
  return "";
}

// `depth` arrays, each holding the next, the innermost holding null.
Bytes nestedArrays(std::size_t depth) {
  Bytes payload = bytes(kHeader);
  for (std::size_t level = 0; level < depth; ++level) {
    // Tag, then the byte length of what follows: the count, the inner levels, the null.
    const auto length = static_cast<std::uint32_t>(4 + 12 * (depth - level - 1) + 4);
    for (std::uint32_t word : {0xe000U, length, 1U}) {
      for (int i = 0; i < 4; ++i) payload.push_back(static_cast<std::uint8_t>(word >> (8 * i)));
    }
  }
  for (std::uint8_t b : bytes("00100000")) payload.push_back(b);
  return payload;
}

}  // namespace

TEST(XPCWireFormatTest, EveryTypeIsLaidOutLittleEndianWithItsTagAndPadding) {
  const XPCObject::Descriptor file = openDescriptor();
  const XPCObject::Descriptor memory = openDescriptor();
  const XPCObject::UUID uuid = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  struct Case {
    XPCObject object;
    std::string layout;
    std::vector<XPCObject::Descriptor> descriptors;
  };
  const std::vector<Case> cases = {
      {XPCObject(), "00100000", {}},
      {XPCObject::boolean(true), "00200000 01000000", {}},
      {XPCObject::boolean(false), "00200000 00000000", {}},
      {XPCObject::int64(-2), "00300000 feffffff ffffffff", {}},
      {XPCObject::uint64(0x0102030405060708), "00400000 08070605 04030201", {}},
      {XPCObject::real(1.5), "00500000 00000000 0000f83f", {}},
      {XPCObject::date(1500000000), "00700000 002f6859 00000000", {}},
      {XPCObject::data({1, 2, 3, 4, 5}), "00800000 05000000 01020304 05000000", {}},
      {XPCObject::data({}), "00800000 00000000", {}},
      {XPCObject::string("abc"), "00900000 04000000 61626300", {}},
      {XPCObject::string("abcd"), "00900000 05000000 61626364 00000000", {}},
      {XPCObject::string(""), "00900000 01000000 00000000", {}},
      {XPCObject::uuid(uuid), "00a00000 00112233 44556677 8899aabb ccddeeff", {}},
      {XPCObject::fileDescriptor(file), "00b00000 00000000", {file}},
      {XPCObject::sharedMemory(memory), "00c00000 00000000", {memory}},
      {XPCObject::array({XPCObject::boolean(true), XPCObject()}),
       "00e00000 10000000 02000000 00200000 01000000 00100000",
       {}},
      {XPCObject::array({}), "00e00000 04000000 00000000", {}},
      {XPCObject::dictionary({{"a", XPCObject()}, {"bcd", XPCObject::int64(1)}}),
       "00f00000 1c000000 02000000 61000000 00100000 62636400 00300000 01000000 00000000",
       {}},
      {XPCObject::dictionary({{"", XPCObject()}}),
       "00f00000 0c000000 01000000 00000000 00100000",
       {}},
  };
  for (const Case& c : cases) {
    const Bytes expected = bytes(kHeader + c.layout);
    XPCWireFormat::Encoded encoded = XPCWireFormat::encode(c.object);
    EXPECT_EQ(encoded.bytes, expected) << c.layout;
    EXPECT_EQ(encoded.descriptors, c.descriptors) << c.layout;
    EXPECT_EQ(XPCWireFormat::decode(expected, c.descriptors), c.object) << c.layout;
  }
}

TEST(XPCWireFormatTest, NestedValuesComeBackAsTheyWentWithDescriptorsInOrder) {
  const XPCObject::Descriptor first = openDescriptor();
  const XPCObject::Descriptor second = openDescriptor();
  const XPCObject message = XPCObject::dictionary({
      {"list", XPCObject::array({XPCObject::string("x"), XPCObject::fileDescriptor(first),
                                 XPCObject::array({XPCObject::real(-0.25), XPCObject::date(-7)}),
                                 XPCObject::dictionary({})})},
      {"memory", XPCObject::sharedMemory(second)},
      {"more", XPCObject::dictionary({{"n", XPCObject::uint64(~0ULL)},
                                      {"blob", XPCObject::data(Bytes(1000, 0x5a))}})},
  });
  XPCWireFormat::Encoded encoded = XPCWireFormat::encode(message);
  EXPECT_EQ(encoded.descriptors, (std::vector<XPCObject::Descriptor>{first, second}));
  EXPECT_EQ(encoded.bytes.size() % 4, 0U);
  EXPECT_EQ(XPCWireFormat::decode(encoded.bytes, encoded.descriptors), message);
}

TEST(XPCWireFormatTest, DecoderRefusesWhatIsNotExactlyOneWellFormedPayloadAndSaysWhy) {
  const std::vector<XPCObject::Descriptor> one = {openDescriptor()};
  struct Case {
    std::string payload;
    std::string why;
  };
  const std::vector<Case> cases = {
      {"", "the magic number needs 4 bytes and only 0 are left at offset 0"},
      {"42371343 05000000 00100000", "not a message: magic number 0x43133742"},
      {"42371342 04000000 00100000", "version 4, not 5"},
      {kHeader + "00600000", "an unknown type tag 0x00006000 at offset 8"},
      {kHeader + "00200000 02000000", "a bool of 2 at offset 16"},
      {kHeader + "00100000 00100000", "4 bytes after the message at offset 12"},
      {kHeader + "00900000 00000000", "a string whose length does not count its NUL"},
      {kHeader + "00900000 04000000 61626364", "a string whose NUL is not its last byte"},
      {kHeader + "00800000 ffffffff 01020304", "data needs 4294967296 bytes and only 4 are left"},
      {kHeader + "00e00000 ff000000 00000000", "an array needs 255 bytes and only 4 are left"},
      {kHeader + "00e00000 04000000 ffffffff",
       "an array of 4294967295 entries in 0 bytes at offset 20"},
      {kHeader + "00f00000 0c000000 ffffff0f 00100000 00100000",
       "a dictionary of 268435455 entries in 8 bytes"},
      // One null declared, and four bytes more inside the array's length.
      {kHeader + "00e00000 0c000000 01000000 00100000 00100000",
       "an array with 4 bytes over at offset 24"},
      // The element runs past the array's length, though not past the payload.
      {kHeader + "00e00000 08000000 01000000 00300000 01000000 00000000",
       "an int64 needs 8 bytes and only 0 are left"},
      {kHeader + "00f00000 0c000000 01000000 61626364 65666768",
       "a dictionary key without its NUL at offset 20"},
      // Its NUL only after the dictionary's end.
      {kHeader + "00f00000 0c000000 01000000 61626364 65666768 00100000",
       "a dictionary key without its NUL at offset 20"},
      {kHeader + "00b00000 01000000", "a file descriptor names descriptor 1 of 1 sent"},
  };
  for (const Case& c : cases) {
    const std::string why = refusal(bytes(c.payload), one);
    EXPECT_NE(why.find(c.why), std::string::npos) << c.payload << " was refused with: " << why;
  }
  EXPECT_EQ(refusal(bytes(kHeader + "00b00000 00000000"), {}),
            "a file descriptor names descriptor 0 of 0 sent at offset 16");

  Bytes large = bytes(kHeader + "00800000");
  const std::uint32_t length = XPCWireFormat::kMaximumSize;
  for (int i = 0; i < 4; ++i) large.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
  large.resize(large.size() + length);
  EXPECT_EQ(refusal(large), "a message of 131088 bytes, larger than 131072");
}

TEST(XPCWireFormatTest, ContainersNestThirtyTwoDeepAndNoDeeperEitherWay) {
  EXPECT_EQ(refusal(nestedArrays(32)), "");
  EXPECT_EQ(refusal(nestedArrays(33)), "containers nested deeper than 32 at offset 396");
  EXPECT_EQ(refusal(nestedArrays(10000)), "containers nested deeper than 32 at offset 396");

  XPCObject deep;
  for (int level = 0; level < 32; ++level) deep = XPCObject::array({deep});
  EXPECT_EQ(XPCWireFormat::encode(deep).bytes, nestedArrays(32));
  EXPECT_THROW(XPCWireFormat::encode(XPCObject::array({deep})), XPCWireFormat::Refused);
}

TEST(XPCWireFormatTest, EncoderRefusesWhatCannotTravel) {
  auto why = [](const XPCObject& object) -> std::string {
    try {
      XPCWireFormat::encode(object);
    } catch (const XPCWireFormat::Refused& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(why(XPCObject::error(XPCObject::ConnectionError::kInvalid)),
            "a connection error cannot be sent");
  EXPECT_EQ(why(XPCObject::dictionary({{std::string("a\0b", 3), XPCObject()}})),
            "a key holding a NUL cannot be sent");
  EXPECT_EQ(why(XPCObject::data(Bytes(XPCWireFormat::kMaximumSize))),
            "a message larger than 131072 bytes");
  EXPECT_EQ(why(XPCObject::array(XPCObject::Array(40000, XPCObject::int64(1)))),
            "a message larger than 131072 bytes");
  XPCObject::Array descriptors(254, XPCObject::fileDescriptor(openDescriptor()));
  EXPECT_EQ(why(XPCObject::array(descriptors)), "more than 253 descriptors in one message");
  EXPECT_EQ(XPCObject::string(std::string("ab\0c", 4)), XPCObject::string("ab"))
      << "a string ends at its first NUL, as a C string does";
}
