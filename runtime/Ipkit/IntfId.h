// IntfId: an interface by number. The top four bits tell what kind it is, the rest is the kind's own number:
//
//     63 .. 60   59 ............................ 0
//        0       ifindex, 1 to 2^31-1                  if12                  an ordinary interface
//        1       value of a tunnel id                  tunnel:ldpTunnel/5    a tunnel as next level
//        (DynamicTunnelIntfId) 2       nexthop group id, 32 bits             nexthopGroup:4        (NexthopGroupIntfId)
//
// IntfId() is no interface. The number may be anything when it comes from damaged memory: kinds only look at the top
// bits, and whoever decodes the rest checks its range (isLegal()).
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/TextCursor.h"

namespace Ipkit {

class IntfId {
 public:
  static constexpr const char* typeName() { return "Ipkit::IntfId"; }
  static constexpr std::uint64_t ifIndexMax = 0x7FFFFFFF;
  enum class Kind : std::uint8_t { ordinary = 0, dynamicTunnel = 1, nexthopGroup = 2 };

  constexpr IntfId() = default;
  constexpr explicit IntfId(std::uint64_t value) : value_(value) {}
  // Raises RangeException for an index that is not 1 to ifIndexMax.
  static IntfId ordinary(std::uint64_t ifIndex);
  static IntfId fromText(std::string_view text);

  constexpr std::uint64_t value() const { return value_; }
  constexpr std::uint64_t number() const { return value_ & numberMask; }
  constexpr bool is(Kind kind) const { return value_ >> kindShift == static_cast<std::uint64_t>(kind); }
  static constexpr IntfId of(Kind kind, std::uint64_t number) {
    return IntfId((static_cast<std::uint64_t>(kind) << kindShift) | (number & numberMask));
  }
  // Whether the kind exists and the number is in its range.
  bool isLegal() const;

  std::uint32_t hash() const;
  friend bool operator==(const IntfId&, const IntfId&) = default;
  friend std::strong_ordering operator<=>(const IntfId&, const IntfId&) = default;
  friend std::ostream& operator<<(std::ostream& out, const IntfId& intf);
  friend void parseValue(Zol::TextCursor& in, IntfId& intf) { intf = fromText(in.token()); }
  friend void encodeValue(Zol::ByteWriter& out, const IntfId& intf) { out.word(intf.value_); }
  friend void decodeValue(Zol::ByteReader& in, IntfId& intf) { intf = IntfId(in.word<std::uint64_t>()); }

 private:
  static constexpr int kindShift = 60;
  static constexpr std::uint64_t numberMask = (std::uint64_t(1) << kindShift) - 1;

  std::uint64_t value_ = 0;
};

// The interface that stands for a tunnel through which a via leaves. What a tunnel id looks like is known on a higher
// floor, which gives its text form and its range here at load.
class DynamicTunnelIntfId {
 public:
  struct Form {
    std::string (*print)(std::uint64_t tunnelId);
    std::uint64_t (*parse)(std::string_view text);  // raises ParseException
    bool (*isLegal)(std::uint64_t tunnelId);
  };
  static void formIs(const Form& form);
  static const Form& form();

  static bool isDynamicTunnelIntfId(IntfId intf) { return intf.is(IntfId::Kind::dynamicTunnel); }
  static IntfId fromTunnelIdValue(std::uint64_t tunnelId) { return IntfId::of(IntfId::Kind::dynamicTunnel, tunnelId); }
  // The number as it stands; it may lie beyond the range of tunnel ids.
  static std::uint64_t tunnelIdValue(IntfId intf) { return intf.number(); }
};

class NexthopGroupIntfId {
 public:
  static bool isNexthopGroupIntfId(IntfId intf) { return intf.is(IntfId::Kind::nexthopGroup); }
  static IntfId nexthopGroupIdToIntfId(std::uint32_t id) { return IntfId::of(IntfId::Kind::nexthopGroup, id); }
  static std::uint32_t nexthopGroupId(IntfId intf) { return static_cast<std::uint32_t>(intf.number()); }
};

}  // namespace Ipkit
