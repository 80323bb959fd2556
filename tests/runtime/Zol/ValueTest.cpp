#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "runtime/Zol/HashCollection.h"
#include "runtime/Zol/Value.h"
#include "tests/support/Seeds.h"

namespace Zol {
namespace {

enum class Colour : std::uint8_t { red, green };
bool isLegal(Colour colour) { return colour <= Colour::green; }
std::ostream& operator<<(std::ostream& out, Colour colour) { return out << (colour == Colour::red ? "red" : "green"); }
void parseValue(TextCursor& in, Colour& colour) {
  colour = in.at("green") ? Colour::green : Colour::red;
  in.expect(colour == Colour::green ? "green" : "red");
}

using Labels = PodArray<std::uint32_t, 7, 2>;

class Hop {
  ZOL_ORDERED_VALUE(Hop, "Test::Hop", (std::uint8_t, weight, 1), (std::uint64_t, address))
};
class Route {
  ZOL_VALUE(Route, "Test::Route", (bool, isUsable, true), (Colour, colour), (std::uint16_t, metric), (Hop, hop),
            (Labels, labels))
};
class NamedHop : public Hop {
  ZOL_DERIVED_VALUE(NamedHop, Hop, "Test::NamedHop", (std::uint32_t, number))
};

Hop hop(std::uint8_t weight, std::uint64_t address) {
  Hop made;
  made.weightIs(weight);
  made.addressIs(address);
  return made;
}
Route route() {
  Route made;
  made.isUsableIs(false);
  made.colourIs(Colour::green);
  made.metricIs(65535);
  made.hopIs(hop(255, UINT64_MAX));
  made.labelsIs({16, 1048575, 3});
  return made;
}
const std::string routeText =
    "Value('Test::Route', ** {'isUsable': False, 'colour': green, 'metric': 65535, "
    "'hop': Value('Test::Hop', ** {'weight': 255, 'address': 18446744073709551615}), 'labels': [16, 1048575, 3]})";

TEST(Value, everythingFollowsFromTheListOfFields) {
  const Route standard;
  EXPECT_TRUE(!standard);
  EXPECT_TRUE(standard.isUsable());
  EXPECT_EQ(standard.hop().weight(), 1);
  // Fails if a field is left out of equality, hash or "is it a default value?".
  std::set<std::uint32_t> hashes{standard.hash()};
  const auto differs = [&](const Route& changed) {
    EXPECT_FALSE(changed == standard) << changed;
    EXPECT_FALSE(!changed) << changed;
    EXPECT_TRUE(hashes.insert(changed.hash()).second) << changed;
  };
  Route changed;
  changed.isUsableIs(false);
  differs(changed);
  (changed = Route()).colourIs(Colour::green);
  differs(changed);
  (changed = Route()).metricIs(1);
  differs(changed);
  (changed = Route()).hopRef().weightIs(0);
  differs(changed);
  (changed = Route()).labelsIs({0});
  differs(changed);

  EXPECT_TRUE(hop(1, 9) < hop(2, 0));
  EXPECT_TRUE(hop(1, 8) < hop(1, 9));
  NamedHop named;
  named.numberIs(3);
  EXPECT_EQ(valueToStrep(named), "Value('Test::NamedHop', ** {'weight': 1, 'address': 0, 'number': 3})");
}

TEST(Value, textRoundTrip) {
  EXPECT_EQ(valueToStrep(route()), routeText);
  EXPECT_EQ(fromText<Route>(routeText), route());
  EXPECT_EQ(fromText<Route>(valueToStrep(Route())), Route());
  EXPECT_EQ(fromText<NamedHop>("Value('Test::NamedHop', ** {'weight': 9, 'address': 2, 'number': 3})").address(), 2U);
}

// Fails if bad text is taken, or the message does not lead to the piece that is wrong.
TEST(Value, badTextIsNamed) {
  const auto messageOf = [](const std::string& text) -> std::string {
    try {
      fromText<Route>(text);
      return "taken";
    } catch (const ParseException& error) {
      return error.what();
    }
  };
  struct Case {
    int line;
    std::string from, to, named;
  };
  for (const Case& c :
       {Case{__LINE__, "Test::Route", "Test::Rout", "expected 'Test::Route' at 'Test::Rout'"},
        Case{__LINE__, "'metric'", "'metrics'", "'metric'"},
        Case{__LINE__, "False", "false", "expected 'False' at 'false"},
        Case{__LINE__, "green", "blue", "expected 'red' at 'blue"},
        Case{__LINE__, "65535", "65536", "attribute metric: value > 65535 not allowed"},
        Case{__LINE__, "65535", "-1", "expected a number at '-1'"},
        Case{__LINE__, "65535", "", "expected a number at ''"},
        Case{__LINE__, "65535", "1x", "expected a number at '1x'"},
        Case{__LINE__, "255", "256", "attribute weight: value > 255 not allowed"},
        Case{__LINE__, "18446744073709551615", "18446744073709551616", "attribute address"},
        Case{__LINE__, "16, 1048575, 3", "1, 2, 3, 4, 5, 6, 7, 8",
             "attribute labels: PodArray::set expected size <= 7"},
        Case{__LINE__, "16, 1048575", "16 1048575", "expected a number at '16 1048575'"},
        Case{__LINE__, "3]})", "3]", "expected '})' at ''"}, Case{__LINE__, "3]})", "3", "expected ', ' at ''"},
        Case{__LINE__, "3]})", "3]}) ", "expected the end at ' '"}}) {
    std::string text = routeText;
    text.replace(text.find(c.from), c.from.size(), c.to);
    EXPECT_NE(messageOf(text).find(c.named), std::string::npos) << "case in line " << c.line << ": " << messageOf(text);
  }
  for (std::size_t length = 0; length < routeText.size(); ++length) {
    EXPECT_NE(messageOf(routeText.substr(0, length)), "taken") << length;
  }
}

template <class T>
std::vector<std::byte> encoded(const T& value) {
  ByteWriter out;
  encodeValue(out, value);
  return {out.written().begin(), out.written().end()};
}

TEST(Value, bytesRoundTrip) {
  for (const Route& value : {Route(), route()}) {
    const std::vector<std::byte> bytes = encoded(value);
    EXPECT_EQ(bytes.size(), 1U + 1U + 2U + 9U + 2U + 4U * value.labels().size()) << "only what is used is stored";
    ByteReader in(bytes);
    Route read = route();
    decodeValue(in, read);
    EXPECT_TRUE(in.ok());
    EXPECT_EQ(in.remaining(), 0U);
    EXPECT_EQ(read, value);
  }
}

// Fails if bytes from a shared table can make the reader leave them, loop, or take what no writer writes.
TEST(Value, hostileBytesAreRefused) {
  const std::vector<std::byte> good = encoded(route());
  const auto isTaken = [](std::span<const std::byte> bytes) {
    const std::vector<std::byte> copy(bytes.begin(), bytes.end());  // its end is the end of the memory
    ByteReader in(copy);
    Route read;
    decodeValue(in, read);
    EXPECT_LE(read.labels().size(), 7U);
    return in.ok();
  };
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(isTaken(std::span(good).first(size))) << size;
  }
  const struct {
    int line;
    std::size_t at;
    int byte;
  } cases[] = {{__LINE__, 0, 2}, {__LINE__, 1, 2}, {__LINE__, 13, 8}, {__LINE__, 14, 255}};  // flag, colour, count
  for (const auto& c : cases) {
    std::vector<std::byte> bytes = good;
    bytes[c.at] = static_cast<std::byte>(c.byte);
    EXPECT_FALSE(isTaken(bytes)) << "case in line " << c.line;
  }
  Support::forEachSeed(1, [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < 20'000; ++i) {
      std::vector<std::byte> bytes = good;
      bytes.resize(random() % (good.size() + 8));
      for (int change = 0; change < 3 && !bytes.empty(); ++change) {
        bytes[random() % bytes.size()] = static_cast<std::byte>(random());
      }
      isTaken(bytes);
    }
  });
}

namespace layout {

class Base {
  ZOL_VALUE(Base, "T", (std::uint8_t, a), (std::uint16_t, b), (Labels, c))
};
class Order {
  ZOL_VALUE(Order, "T", (std::uint16_t, b), (std::uint8_t, a), (Labels, c))
};
class Width {
  ZOL_VALUE(Width, "T", (std::uint8_t, a), (std::uint32_t, b), (Labels, c))
};
class Flag {
  ZOL_VALUE(Flag, "T", (bool, a), (std::uint16_t, b), (Labels, c))
};
class Renamed {
  ZOL_VALUE(Renamed, "T", (std::uint8_t, a), (std::uint16_t, x), (Labels, c))
};
class Longer {
  using Array = PodArray<std::uint32_t, 8, 2>;
  ZOL_VALUE(Longer, "T", (std::uint8_t, a), (std::uint16_t, b), (Array, c))
};
class More {
  ZOL_VALUE(More, "T", (std::uint8_t, a), (std::uint16_t, b), (Labels, c), (bool, d))
};
class Nested {
  ZOL_VALUE(Nested, "T", (Hop, a), (std::uint16_t, b), (Labels, c))
};

}  // namespace layout

// Fails if two layouts that read each other's bytes wrongly have the same schema.
TEST(Value, schemaTellsLayoutsApart) {
  const std::set<std::string> schemas = {
      schemaOf<layout::Base>(),    schemaOf<layout::Order>(),  schemaOf<layout::Width>(), schemaOf<layout::Flag>(),
      schemaOf<layout::Renamed>(), schemaOf<layout::Longer>(), schemaOf<layout::More>(),  schemaOf<layout::Nested>()};
  EXPECT_EQ(schemas.size(), 8U);
  EXPECT_NE(schemaOf<layout::Nested>().find(schemaOf<Hop>()), std::string::npos);
}

// Fails if the hash of ids is no longer the one that tables in use are ordered by.
TEST(Hash, oneAtATime) {
  const auto hashOfWord = [](std::uint64_t word) {
    OneAtATime hash;
    hash.word(word);
    return hash.result();
  };
  const auto byBytes = [](std::uint64_t word) {
    std::uint32_t state = 0;
    for (int i = 0; i < 8; ++i) {
      state += static_cast<std::uint8_t>(word >> (8 * i));
      state *= 1025;
      state ^= state >> 6;
    }
    state *= 9;
    state ^= state >> 11;
    return state * 32769;
  };
  for (std::uint64_t word : {0ULL, 1ULL, 255ULL, 256ULL, 5ULL << 44 | 77, 0x8000000000000001ULL, ~0ULL}) {
    EXPECT_EQ(hashOfWord(word), byBytes(word)) << word;
  }
  EXPECT_EQ(hashOf(std::string("a")), 0xca2e9442U);
  EXPECT_EQ(hashOf(std::string("The quick brown fox jumps over the lazy dog")), 0x519e91f5U);
  OneAtATime two;
  two.word(0x6867666564636261);
  two.word(0x706f6e6d6c6b6a69);
  EXPECT_EQ(two.result(), hashOf(std::string("abcdefghijklmnop")));
}

}  // namespace
}  // namespace Zol
