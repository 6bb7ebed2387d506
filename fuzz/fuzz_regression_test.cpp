// Every input that once broke a fuzz target, replayed through the target's
// body by name in every configuration; and one ordinary input per body, so
// that a body that no longer runs shows here too.
#include <gtest/gtest.h>

#include <string>

#include "fuzz/fuzz_bodies.h"

namespace tsm::fuzz {
namespace {

std::string RunBody(Body body, const std::string& input) {
  return body(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

TEST(FuzzBodiesTest, OrdinaryInputsPass) {
  EXPECT_EQ(RunBody(&FuzzSessionTable, std::string(4, '\0') + "09:00~11:30;13:00~15:00"), "");
  EXPECT_EQ(RunBody(&FuzzSecurityInfo, std::string("\0\0\x03\xe8\0\0\0\x14\0\0\x30\x39\0\0\0", 15) + "Q|100|x|1000"), "");
  EXPECT_EQ(RunBody(&FuzzVaultDocument,
                std::string("\0\0", 2) + "{\"QX.S.TW.2330\":{\"OpenCloseTime\":\"09:00~11:30;13:00~15:00\"}}"),
            "");
  EXPECT_EQ(RunBody(&FuzzJsonMember, std::string("\0\0", 2) + "{\"OpenCloseTime\":\"09:00~15:00\"}"), "");
  EXPECT_EQ(RunBody(&FuzzExtCommands, "\x03 a = 1 ;junk;CANCELCLOSEWORKING=1;b=2"), "");
  EXPECT_EQ(RunBody(&FuzzSliceId, "\x00TYPE=S,SlicedID=P1-S,QTY=1"), "");
  EXPECT_EQ(RunBody(&FuzzDecimal, std::string("\0", 1) + "  -12abc"), "");
  EXPECT_EQ(RunBody(&FuzzFormat, std::string("\0\0", 2) + "abcdefgh"), "");
  EXPECT_EQ(RunBody(&FuzzScenario, "{\"steps\":[{\"at\":0,\"do\":\"SetStage\",\"stage\":1}]}"), "");
  EXPECT_EQ(RunBody(&FuzzTranscript, std::string("\0\x05", 2) + "a\nb\r\na\nc"), "");
  EXPECT_EQ(RunBody(&FuzzInbound, std::string("\x00\x00\x00\x00\x00\x01\x02\x03\x04\x05\x06", 11)), "");
}

// A session bound of more digits than a time ("09:309:39:30" reads as
// 93093930) made the open/close check overflow a signed product when it
// turned HHMM into HHMMSS.
TEST(FuzzFindingsTest, SessionBoundTooLargeForHhmmssWraps) {
  EXPECT_EQ(RunBody(&FuzzSessionTable, std::string(4, '\0') + "09:309:39:30"), "");
}

// A number with a zero significand, many digits and a large exponent sent
// the scenario reader's full-precision number parsing into clz(0).
TEST(FuzzFindingsTest, ScenarioZeroSignificandWithLongExponent) {
  const std::string input =
      "[338,333333330000000,0e+54\xff\xfe" "4\xff\xfe" "3333333300000000:0001102547639{54";
  EXPECT_EQ(RunBody(&FuzzScenario, input), "");
}

// Text nested 300,000 levels deep overflowed the stack of the recursive JSON
// parsers: the scenario reader, the simulated host's vault document and
// GetJsonString, which now reads nothing deeper than kJsonMaxDepth.
TEST(FuzzFindingsTest, ScenarioNestedWithoutEnd) {
  EXPECT_EQ(RunBody(&FuzzScenario, std::string(300000, '[')), "");
}

TEST(FuzzFindingsTest, VaultDocumentNestedWithoutEnd) {
  EXPECT_EQ(RunBody(&FuzzVaultDocument, std::string(2, '\0') + std::string(300000, '[')), "");
}

TEST(FuzzFindingsTest, JsonMemberNestedWithoutEnd) {
  EXPECT_EQ(RunBody(&FuzzJsonMember, std::string(2, '\0') + std::string(300000, '[')), "");
  EXPECT_EQ(RunBody(&FuzzJsonMember, std::string(2, '\0') + std::string(300000, '{') ), "");
}

}  // namespace
}  // namespace tsm::fuzz
