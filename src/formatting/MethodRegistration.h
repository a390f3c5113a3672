#pragma once
// Registers member functions of a formatting class in its method table. The
// argument type codes come from the parameter types: bool is 'c', int 'i',
// const Value& '@'. A call converts each argument (a boolean from any
// number or "YES"-like string, an integer from any numeric value, 0 for
// anything else) and answers the member's result.
//
//   registerMember<FormattingMethods>("FormattingMethods", "maxLength::",
//       PC_FORMATTING_MEMBER(FormattingMethods, maxLength, (const Value&, int)));

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "formatting/FormattingMethods.h"
#include "platform/Registry.h"

// The member `name` of `Cls` with the parameter list `params`, which picks one
// overload.
#define PC_FORMATTING_MEMBER(Cls, name, params) static_cast<::pc::Value(Cls::*) params>(&Cls::name)

namespace pc::formatting_registration {

template <class T>
struct Argument;

template <>
struct Argument<bool> {
  static constexpr char code = 'c';
  static bool from(const Value& value) {
    return (value.isNumber() || value.isString()) && value.boolValue();
  }
};

template <>
struct Argument<int> {
  static constexpr char code = 'i';
  static int from(const Value& value) {
    const std::int64_t n =
        (value.isNumber() || value.isString()) ? value.integerIfNumeric().value_or(0) : 0;
    if (n > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    if (n < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
    return static_cast<int>(n);
  }
};

template <>
struct Argument<const Value&> {
  static constexpr char code = '@';
  static const Value& from(const Value& value) { return value; }
};

template <class Cls, class... Params, std::size_t... I>
Value callMember(Cls& self, Value (Cls::*member)(Params...), std::vector<Value>& arguments,
                 std::index_sequence<I...>) {
  return (self.*member)(Argument<Params>::from(arguments[I])...);
}

template <class Cls, class... Params>
void registerMember(const std::string& className, const std::string& selector,
                    Value (Cls::*member)(Params...)) {
  const std::string types{Argument<Params>::code...};
  FormattingMethods::registerSelector(
      className, selector, types, [member](Object& object, std::vector<Value>& arguments) -> Value {
        auto* self = dynamic_cast<Cls*>(&object);
        if (!self || arguments.size() != sizeof...(Params)) return Value();
        return callMember(*self, member, arguments, std::index_sequence_for<Params...>{});
      });
}

}  // namespace pc::formatting_registration
