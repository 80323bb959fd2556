// Texts of addresses, prefixes, interfaces and labels, as operators and publishers write them and as they are printed.
#include <gtest/gtest.h>

#include "runtime/Ipkit/IntfId.h"
#include "runtime/Ipkit/IpGenPrefix.h"
#include "runtime/Ipkit/MplsLabelOperation.h"
#include "runtime/Zol/Value.h"

namespace Ipkit {
namespace {

// Parses a text and prints the value; for a refused text, prints an exclamation mark and the reason.
template <class T>
std::string parsed(std::string_view text) {
  try {
    return Zol::stringOf(Zol::fromText<T>(text));
  } catch (const Zol::Exception& exception) {
    return std::string("!") + exception.what();
  }
}

// Each row is a text that is printed as it is, or "text -> result". before and after enclose each result that is given.
template <class T>
void expectAll(std::initializer_list<std::string_view> rows, const std::string& before = "",
               const std::string& after = "") {
  for (const std::string_view row : rows) {
    const std::size_t arrow = row.find(" -> ");
    const std::string_view text = row.substr(0, arrow);
    EXPECT_EQ(parsed<T>(text), arrow == row.npos ? text : before + std::string(row.substr(arrow + 4)) + after) << row;
  }
}

// Fails if an address is printed in another form than RFC 5952's: then a search in logs misses it.
TEST(IpGenAddr, canonicalTexts) {
  expectAll<IpGenAddr>({"0.0.0.0", "255.255.255.255", "10.0.0.1", "::", "::1", "1::", "::fffe:c000:201"});
  // Lower case without leading zeros; "::" for the longest run of zero groups, the first of two, never for one group.
  expectAll<IpGenAddr>({"2001:0DB8:0000:0000:0000:0000:0000:00aB -> 2001:db8::ab", "2001:db8:0:1:1:1:1:1",
                        "2001:db8::1:1:1:1:1 -> 2001:db8:0:1:1:1:1:1", "2001:0:0:1:0:0:0:1 -> 2001:0:0:1::1",
                        "2001:db8:0:0:1:0:0:1 -> 2001:db8::1:0:0:1", "1:0:0:2:3:4:5:0 -> 1::2:3:4:5:0",
                        "1:2:3:4:5:6:0:0 -> 1:2:3:4:5:6::", "1:2:3:4:5:6::8 -> 1:2:3:4:5:6:0:8"});
  expectAll<IpGenAddr>({"0:0:0:0:0:ffff:c000:0201 -> ::ffff:192.0.2.1", "::ffff:192.0.2.1", "::192.0.2.1 -> ::c000:201",
                        "64:ff9b::192.0.2.33 -> 64:ff9b::c000:221"});
}

// Fails if a slip of the pen becomes another address.
TEST(IpGenAddr, refusesWhatIsNoAddress) {
  for (const std::string_view text : {"",
                                      "10",
                                      "10.0.0",
                                      "10.0.0.",
                                      "10.0.0.1.",
                                      "10.0.0.1.1",
                                      "10.0.0.256",
                                      "10.0.0.01",
                                      "010.0.0.1",
                                      "10.0.0.-1",
                                      "10.0.0.0x1",
                                      "10.0.0.1 ",
                                      " 10.0.0.1",
                                      "10.0.0.1/32",
                                      "10,0.0.1",
                                      ":",
                                      ":::",
                                      "1::2::3",
                                      "1:2:3:4:5:6:7",
                                      "1:2:3:4:5:6:7:8:9",
                                      "12345::",
                                      "g::",
                                      "fe80::1%eth0",
                                      "[::1]",
                                      "::ffff:192.0.2",
                                      "::192.0.2.1:1",
                                      "2001:db8::1 ",
                                      "localhost"}) {
    EXPECT_THROW(IpGenAddr::fromText(text), Zol::ParseException) << text;
  }
  EXPECT_THROW(IpGenAddr::fromText(std::string_view("10.0.0.1\0", 9)), Zol::ParseException);
  expectAll<IpGenAddr>({"10.0.0.256 -> !'10.0.0.256' is not an IPv4 or IPv6 address"});
}

// Fails if a prefix is widened, narrowed or moved in place of being refused, or the reason is withheld.
TEST(IpGenPrefix, texts) {
  expectAll<IpGenPrefix>({"0.0.0.0/0", "10.0.0.0/8", "10.128.0.0/9", "10.0.0.1/32", "::/0", "2001:db8:8000::/33",
                          "2001:db8::1/128", "2001:DB8:0::/48 -> 2001:db8::/48"});
  expectAll<IpGenPrefix>({"10.0.0.1 -> 10.0.0.1", " -> "}, "!'", "' is not a prefix: no '/'");
  expectAll<IpGenPrefix>({"10.0.0.0/ -> 10.0.0.0/", "10.0.0.0/+8 -> 10.0.0.0/+8", "10.0.0.0/-8 -> 10.0.0.0/-8",
                          "10.0.0.0/08 -> 10.0.0.0/08", "10.0.0.0/ 8 -> 10.0.0.0/ 8", "10.0.0.0/8/8 -> 10.0.0.0/8/8",
                          "10.0.0.0/255.0.0.0 -> 10.0.0.0/255.0.0.0"},
                         "!'", "' is not a prefix: the length is not a number");
  expectAll<IpGenPrefix>({"10.0.0.1/24 -> 10.0.0.1/24", "10.64.0.0/9 -> 10.64.0.0/9", "128.0.0.0/0 -> 128.0.0.0/0",
                          "2001:db8:4000::/33 -> 2001:db8:4000::/33", "2001:db8::1/127 -> 2001:db8::1/127"},
                         "!'", "' is not a prefix: IpGenPrefix::address with host bits set not allowed");
  expectAll<IpGenPrefix>({"10.0.0.0/33 -> 10.0.0.0/33' is not a prefix: IpGenPrefix::length > 32",
                          "::/129 -> ::/129' is not a prefix: IpGenPrefix::length > 128",
                          "10.0.0.0/264 -> 10.0.0.0/264' is not a prefix: value > 255",
                          "::/18446744073709551624 -> ::/18446744073709551624' is not a prefix: value > 255"},
                         "!'", " not allowed");
  expectAll<IpGenPrefix>({"/8 -> /8' is not a prefix: ''", "10.0.0/8 -> 10.0.0/8' is not a prefix: '10.0.0'"}, "!'",
                         " is not an IPv4 or IPv6 address");
}

// Fails if an address counts as inside of a prefix of the other family, or the edge bits are off by one.
TEST(IpGenPrefix, contains) {
  const auto holds = [](const char* prefix, const char* address) {
    return IpGenPrefix::fromText(prefix).contains(IpGenAddr::fromText(address));
  };
  EXPECT_TRUE(holds("10.128.0.0/9", "10.255.255.255"));
  EXPECT_FALSE(holds("10.128.0.0/9", "10.127.255.255"));
  EXPECT_TRUE(holds("2001:db8::/127", "2001:db8::1"));
  EXPECT_FALSE(holds("2001:db8::/127", "2001:db8::2"));
  EXPECT_TRUE(holds("0.0.0.0/0", "255.1.2.3"));
  EXPECT_FALSE(holds("0.0.0.0/0", "::"));
  EXPECT_FALSE(holds("::/0", "0.0.0.0"));
}

// Fails if damaged bytes become a prefix that no parser would accept.
TEST(IpGenPrefix, bytes) {
  for (const char* const text : {"10.0.0.0/8", "2001:db8::/32"}) {
    const IpGenPrefix prefix = IpGenPrefix::fromText(text);
    Zol::ByteWriter out;
    encodeValue(out, prefix);
    EXPECT_EQ(IpGenPrefix::hashOfEncoded(out.written()), prefix.hash());
    const auto decoded = [&](std::size_t fromEnd, int change) {
      std::vector<std::byte> bytes(out.written().begin(), out.written().end());
      std::byte& changed = bytes.at(bytes.size() - fromEnd);
      changed = std::byte(std::to_integer<int>(changed) + change);
      Zol::ByteReader in(bytes);
      IpGenPrefix read;
      decodeValue(in, read);
      return in.ok() ? Zol::stringOf(read) : "bad";
    };
    EXPECT_EQ(decoded(1, 0), text);
    EXPECT_EQ(decoded(out.size(), 1), "bad") << "family";
    EXPECT_EQ(decoded(2, 1), "bad") << "host bit";
    EXPECT_EQ(decoded(1, -8), "bad") << "shorter than its bits";
    EXPECT_EQ(decoded(1, 120), "bad") << "longer than its family's addresses";
  }
}

// Fails if a wrong interface name becomes another interface.
TEST(IntfId, texts) {
  expectAll<IntfId>({"none", "if1", "if2147483647", "nexthopGroup:0", "nexthopGroup:4294967295"});
  expectAll<IntfId>(
      {"if0 -> IntfId::ifIndex < 1 or > 2147483647", "if2147483648 -> IntfId::ifIndex < 1 or > 2147483647",
       "nexthopGroup:4294967296 -> value > 4294967295"},
      "!", " not allowed");
  expectAll<IntfId>({"if -> ", "if-1 -> -1", "if1.100 -> 1.100", "tunnel: -> ", "nexthopGroup:a -> a"},
                    "!expected a number at '", "'");
  expectAll<IntfId>({" -> ", "If1 -> If1", "eth0 -> eth0", "None -> None", "nexthopgroup:1 -> nexthopgroup:1"}, "!'",
                    "' is not an interface (if<n>, tunnel:<id>, nexthopGroup:<n>)");
}

// Fails if a label operation changes its stack on the way through its text, or a wrong stack is accepted.
TEST(MplsLabelOperation, texts) {
  expectAll<MplsLabelOperation>(
      {"none []", "push []", "push [300123, 17]", "swap [0]", "push [1, 2, 3, 4, 5, 6, 1048575]",
       "push [1048576] -> !MplsLabel::value > 1048575 not allowed", "shove [1] -> !'shove' is not a label operation"});
  for (const char* const text : {"push", "push 17", "push [17", "push [17, ]", "push [17]x", "push [-1]", "push [a]",
                                 "push [1, 2, 3, 4, 5, 6, 7, 8]", "Push [1]", ""}) {
    EXPECT_THROW(Zol::fromText<MplsLabelOperation>(text), Zol::Exception) << text;
  }
}

}  // namespace
}  // namespace Ipkit
