#pragma once
// Common aliases of the base library: the standard library under the names the
// rest of the code base uses.
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

#include "QuelinLib/Expected.h"

#if defined(_WIN32)
#define QUELIN_EXPORT_DECL __declspec(dllexport)
#define QUELIN_IMPORT_DECL __declspec(dllimport)
#else
#define QUELIN_EXPORT_DECL __attribute__((visibility("default")))
#define QUELIN_IMPORT_DECL __attribute__((visibility("default")))
#endif

namespace Quelin {

using String = std::string;
using StringView = std::string_view;
template <typename T> using Stack = std::vector<T>;
template <typename T> using Optional = std::optional<T>;
template <typename... T> using Variant = std::variant<T...>;
template <typename T, typename E = String> using Expected = Detail::Expected<T, E>;
template <typename E> using Unexpected = Detail::Unexpected<E>;
template <typename S> using Function = std::function<S>;
template <typename T, std::size_t N> using StaticArray = std::array<T, N>;
template <typename T> using SharedPtr = std::shared_ptr<T>;
template <typename T> using WeakPtr = std::weak_ptr<T>;
using Mutex = std::mutex;
using RecursiveMutex = std::recursive_mutex;
using Thread = std::thread;

/// One allocation for control block and object.
template <typename T, typename... Args> SharedPtr<T> makeSharedPtr(Args&&... args) {
    return std::make_shared<T>(std::forward<Args>(args)...);
}

inline Unexpected<String> makeError(String text) { return Unexpected<String>(std::move(text)); }

/// Base of polymorphic classes: virtual destructor only.
class Polymorphic {
public:
    virtual ~Polymorphic() = default;
};

/// Base of classes that must not be copied or moved.
class Noncopyable {
public:
    Noncopyable() = default;
    Noncopyable(Noncopyable const&) = delete;
    Noncopyable& operator=(Noncopyable const&) = delete;
};

} // namespace Quelin
