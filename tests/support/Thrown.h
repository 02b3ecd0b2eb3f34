#pragma once

#include <exception>
#include <string>
#include <type_traits>
#include <utility>

namespace Zelmar {
namespace Testing {

template <class E, class = void> struct HasGetMessage : std::false_type
{
};
template <class E>
struct HasGetMessage<E, std::void_t<decltype(std::declval<E const&>().getMessage())>> : std::true_type
{
};

// The message of the `Exception` that f() throws (getMessage(), where it has one, else what()), or
// "no exception" when it returns.
template <class Exception, class F> std::string thrownMessage(F&& f)
{
    try {
        f();
    } catch (Exception const& e) {
        if constexpr (HasGetMessage<Exception>::value)
            return e.getMessage().c_str();
        else
            return e.what();
    }
    return "no exception";
}

} // namespace Testing
} // namespace Zelmar
