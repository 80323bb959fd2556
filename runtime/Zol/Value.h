// Values that describe themselves. A record lists its fields once:
//
//     class Via {
//       ZOL_VALUE(Via, "Tunnel::TunnelTable::Via",
//           (Ipkit::IpGenAddr, nextHop),
//           (Ipkit::IntfId, intf))
//     };
//
// and from that list come the members with their defaults (a third item in a field's brackets, else T()), the
// attributes nextHop() and nextHopIs(v) and the in-place nextHopRef(), equality, field-by-field ordering, hash(),
// operator! ("is it a default value?"), the value string
//
//     Value('Tunnel::TunnelTable::Via', ** {'nextHop': 10.0.0.1, 'intf': if12})
//
// its parser, the codec for shared tables, and the schema text whose hash tells two layouts apart. A record built on
// another one uses ZOL_DERIVED_VALUE; the base's fields come first.
//
// A field's type joins in by offering, found by its own namespace: operator==, operator<=>, hash() or an integral
// value, operator<<, parseValue(TextCursor&, T&), encodeValue(ByteWriter&, const T&), decodeValue(ByteReader&, T&).
// Numbers, bools, enumerations with a name table, and counted arrays are provided here.
#pragma once

#include <compare>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/Hash.h"
#include "runtime/Zol/PodArray.h"
#include "runtime/Zol/TextCursor.h"

namespace Zol {

template <class Owner, class T>
struct Field {
  using Type = T;
  const char* name;
  T Owner::*member;
};

template <class T>
concept Described = requires {
  T::fields();
};

// Calls f(name, value) for each field in order.
template <Described T, class F>
void forEachField(T& value, F&& f) {
  std::apply([&](const auto&... field) { (f(field.name, value.*field.member), ...); },
             std::remove_const_t<T>::fields());
}

// ---- comparison and hash -------------------------------------------------------------------------------------------

template <Described T>
bool equalFields(const T& a, const T& b) {
  return std::apply([&](const auto&... field) { return ((a.*field.member == b.*field.member) && ...); }, T::fields());
}

template <Described T>
std::strong_ordering compareFields(const T& a, const T& b) {
  std::strong_ordering order = std::strong_ordering::equal;
  const auto differs = [&](const auto& field) { return (order = a.*field.member <=> b.*field.member) != 0; };
  std::apply([&](const auto&... field) { static_cast<void>((differs(field) || ...)); }, T::fields());
  return order;
}

template <Described T>
std::uint32_t hashFields(const T& value) {
  HashMix mix;
  forEachField(value, [&mix](const char*, const auto& field) { mix.add(hashOf(field)); });
  return mix.result();
}

// ---- text ----------------------------------------------------------------------------------------------------------

// Numbers print as numbers whatever their width, bools as True and False, everything else by its own operator.
template <class T>
void printValue(std::ostream& out, const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    out << (value ? "True" : "False");
  } else if constexpr (std::is_integral_v<T>) {
    out << +value;
  } else {
    out << value;
  }
}

template <class T, std::size_t maxSize, std::size_t inlineSize>
std::ostream& operator<<(std::ostream& out, const PodArray<T, maxSize, inlineSize>& array) {
  const char* separator = "[";
  for (const T& element : array) {
    out << separator;
    printValue(out, element);
    separator = ", ";
  }
  return out << (array.empty() ? "[]" : "]");
}

template <Described T>
void printFields(std::ostream& out, const T& value) {
  out << "Value('" << T::typeName() << "', ** {";
  const char* separator = "'";
  forEachField(value, [&](const char* name, const auto& field) {
    out << separator << name << "': ";
    printValue(out, field);
    separator = ", '";
  });
  out << "})";
}

// The text form of any value.
template <class T>
std::string stringOf(const T& value) {
  std::ostringstream out;
  printValue(out, value);
  return out.str();
}

std::uint64_t parseUnsigned(std::string_view text, std::uint64_t max);
// The beginning of a value string of that type.
void expectValueHead(TextCursor& in, const char* typeName);

template <class T>
requires std::is_integral_v<T>
void parseValue(TextCursor& in, T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    value = in.at("True");
    in.expect(value ? "True" : "False");
  } else {
    static_assert(std::is_unsigned_v<T>);
    value = static_cast<T>(parseUnsigned(in.token(), static_cast<T>(-1)));
  }
}

template <Described T>
void parseValue(TextCursor& in, T& value);

template <class T, std::size_t maxSize, std::size_t inlineSize>
void parseValue(TextCursor& in, PodArray<T, maxSize, inlineSize>& array) {
  array.clear();
  in.expect("[");
  while (!in.at("]")) {
    if (!array.empty()) {
      in.expect(", ");
    }
    T element{};
    parseValue(in, element);
    array.append(element);
  }
  in.expect("]");
}

// A field outside its range is reported as a fault of the text, with the attribute where it stands.
template <class T>
void parseAttribute(TextCursor& in, const char* name, T& value) {
  try {
    parseValue(in, value);
  } catch (const RangeException& outOfRange) {
    throw ParseException("attribute " + std::string(name) + ": " + outOfRange.what());
  }
}

template <Described T>
void parseFields(TextCursor& in, T& value) {
  expectValueHead(in, T::typeName());
  const char* separator = "'";
  forEachField(value, [&](const char* name, auto& field) {
    in.expect(separator + std::string(name) + "': ");
    parseAttribute(in, name, field);
    separator = ", '";
  });
  in.expect("})");
}
template <Described T>
void parseValue(TextCursor& in, T& value) {
  parseFields(in, value);
}

// The value of a whole text; raises ParseException or RangeException.
template <class T>
T fromText(std::string_view text) {
  TextCursor in(text);
  T value{};
  parseValue(in, value);
  in.expectEnd();
  return value;
}

// ---- bytes ---------------------------------------------------------------------------------------------------------

template <class T>
requires std::is_integral_v<T> || std::is_enum_v<T>
void encodeValue(ByteWriter& out, const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    out.word(static_cast<std::uint8_t>(value));
  } else if constexpr (std::is_enum_v<T>) {
    out.word(static_cast<std::make_unsigned_t<std::underlying_type_t<T>>>(value));
  } else {
    out.word(static_cast<std::make_unsigned_t<T>>(value));
  }
}
template <class T>
requires std::is_integral_v<T>
void decodeValue(ByteReader& in, T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    const std::uint8_t byte = in.word<std::uint8_t>();
    if (byte > 1) {
      in.bad();
    }
    value = byte == 1;
  } else {
    value = static_cast<T>(in.word<std::make_unsigned_t<T>>());
  }
}
// An enumeration whose legal values are those that isLegal(T), found by its namespace, accepts.
template <class T>
requires std::is_enum_v<T>
void decodeValue(ByteReader& in, T& value) {
  value = static_cast<T>(in.word<std::make_unsigned_t<std::underlying_type_t<T>>>());
  if (!isLegal(value)) {
    in.bad();
  }
}

template <Described T>
void encodeValue(ByteWriter& out, const T& value);
template <Described T>
void decodeValue(ByteReader& in, T& value);

// Only the elements in use are stored.
template <class T, std::size_t maxSize, std::size_t inlineSize>
void encodeValue(ByteWriter& out, const PodArray<T, maxSize, inlineSize>& array) {
  out.word(static_cast<std::uint16_t>(array.size()));
  for (const T& element : array) {
    encodeValue(out, element);
  }
}
template <class T, std::size_t maxSize, std::size_t inlineSize>
void decodeValue(ByteReader& in, PodArray<T, maxSize, inlineSize>& array) {
  const std::uint16_t count = in.word<std::uint16_t>();
  if (count > maxSize || count > in.remaining()) {  // an element takes a byte at least
    in.bad();
    array.clear();
    return;
  }
  array.sizeIs(count);
  for (T& element : array) {
    decodeValue(in, element);
  }
}

template <Described T>
void encodeValue(ByteWriter& out, const T& value) {
  forEachField(value, [&out](const char*, const auto& field) { encodeValue(out, field); });
}
template <Described T>
void decodeValue(ByteReader& in, T& value) {
  forEachField(value, [&in](const char*, auto& field) { decodeValue(in, field); });
}

// ---- schema --------------------------------------------------------------------------------------------------------

template <class T>
struct Schema;

template <class T>
concept NamesItself = requires {
  { T::typeName() } -> std::convertible_to<std::string>;
};

void appendAll(std::string& text, std::initializer_list<std::string_view> parts);

// A text that changes whenever the encoded layout of T changes.
template <class T>
std::string schemaOf() {
  if constexpr (Described<T>) {
    std::string text;
    appendAll(text, {T::typeName(), "{"});
    std::apply(
        [&text](const auto&... field) {
          (appendAll(text, {field.name, ":", schemaOf<typename std::remove_cvref_t<decltype(field)>::Type>(), ";"}),
           ...);
        },
        T::fields());
    appendAll(text, {"}"});
    return text;
  } else if constexpr (std::is_same_v<T, bool>) {
    return "bool";
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    std::string text;
    appendAll(text, {"u", std::to_string(sizeof(T) * 8)});
    return text;
  } else if constexpr (NamesItself<T>) {
    return T::typeName();
  } else {
    return Schema<T>::text();
  }
}

template <class T, std::size_t maxSize, std::size_t inlineSize>
struct Schema<PodArray<T, maxSize, inlineSize>> {
  static std::string text() {
    std::string text;
    appendAll(text, {schemaOf<T>(), "[", std::to_string(maxSize), "]"});
    return text;
  }
};

}  // namespace Zol

// ---- the list ------------------------------------------------------------------------------------------------------

#define ZOL_PARENS ()
#define ZOL_EXPAND(...) ZOL_EXPAND3(ZOL_EXPAND3(ZOL_EXPAND3(ZOL_EXPAND3(__VA_ARGS__))))
#define ZOL_EXPAND3(...) ZOL_EXPAND2(ZOL_EXPAND2(ZOL_EXPAND2(__VA_ARGS__)))
#define ZOL_EXPAND2(...) __VA_ARGS__
#define ZOL_EACH(macro, Type, ...) __VA_OPT__(ZOL_EXPAND(ZOL_EACH_STEP(macro, Type, __VA_ARGS__)))
#define ZOL_EACH_STEP(macro, Type, field, ...) \
  macro(Type, ZOL_UNPACK field) __VA_OPT__(ZOL_EACH_AGAIN ZOL_PARENS(macro, Type, __VA_ARGS__))
#define ZOL_EACH_AGAIN() ZOL_EACH_STEP
#define ZOL_UNPACK(...) __VA_ARGS__

#define ZOL_DECLARE(Type, ...) ZOL_DECLARE_FIELD(__VA_ARGS__)
#define ZOL_DECLARE_FIELD(T, name, ...)                  \
 public:                                                 \
  const T& name() const { return name##_; }              \
  T& name##Ref() { return name##_; }                     \
  void name##Is(T value) { name##_ = std::move(value); } \
                                                         \
 private:                                                \
  T name##_{__VA_ARGS__};
#define ZOL_FIELD(Type, ...) ZOL_FIELD_ENTRY(Type, __VA_ARGS__)
#define ZOL_FIELD_ENTRY(Type, T, name, ...) std::make_tuple(Zol::Field<Type, T>{#name, &Type::name##_}),

#define ZOL_DESCRIBE(Type, typeText, baseFields, ...)                                         \
  ZOL_EACH(ZOL_DECLARE, Type, __VA_ARGS__)                                                    \
 public:                                                                                      \
  static constexpr const char* typeName() { return typeText; }                                \
  static constexpr auto fields() {                                                            \
    return std::tuple_cat(baseFields, ZOL_EACH(ZOL_FIELD, Type, __VA_ARGS__) std::tuple<>()); \
  }                                                                                           \
  friend bool operator==(const Type& a, const Type& b) { return Zol::equalFields(a, b); }     \
  bool operator!() const { return *this == Type(); }                                          \
  std::uint32_t hash() const { return Zol::hashFields(*this); }                               \
  friend std::ostream& operator<<(std::ostream& out, const Type& value) {                     \
    Zol::printFields(out, value);                                                             \
    return out;                                                                               \
  }                                                                                           \
  [[maybe_unused]] friend std::string valueToStrep(const Type& value) { return Zol::stringOf(value); }

// For a record; goes first in its class. ZOL_ORDERED_VALUE adds the ordering field by field.
#define ZOL_VALUE(Type, typeText, ...) ZOL_DESCRIBE(Type, typeText, std::tuple<>(), __VA_ARGS__)
#define ZOL_ORDERED_VALUE(Type, typeText, ...) \
  ZOL_VALUE(Type, typeText, __VA_ARGS__)       \
  friend std::strong_ordering operator<=>(const Type& a, const Type& b) { return Zol::compareFields(a, b); }
// For a record built on another one; the base's fields come first.
#define ZOL_DERIVED_VALUE(Type, Base, typeText, ...) ZOL_DESCRIBE(Type, typeText, Base::fields(), __VA_ARGS__)
