#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace Orb {

class String;

// The kinds of exception the framework raises. `Expect::add` takes one of these.
enum class ExceptionId : uint8_t { range, internal, parse };

// Base of the framework's exceptions; `what()` is the message exactly as given.
class Exception : public std::exception {
 public:
  Exception(ExceptionId id, std::string message) : id_(id), message_(std::move(message)) {}
  [[nodiscard]] ExceptionId id() const noexcept { return id_; }
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

 private:
  ExceptionId id_;
  std::string message_;
};

// A value out of its range, or a required object missing ("null ValidPtr").
class RangeException : public Exception {
 public:
  explicit RangeException(std::string message)
      : Exception(ExceptionId::range, std::move(message)) {}
};

// A broken internal invariant.
class InternalException : public Exception {
 public:
  explicit InternalException(std::string message)
      : Exception(ExceptionId::internal, std::move(message)) {}
};

// Text or an attribute log that cannot be read back.
class ParseException : public Exception {
 public:
  explicit ParseException(std::string message)
      : Exception(ExceptionId::parse, std::move(message)) {}
};

[[noreturn]] void throwRangeException(const char* message);
[[noreturn]] void throwInternalException(const char* message);
[[noreturn]] void throwInternalException(const String& message);
[[noreturn]] void throwParseException(const std::string& message);
// Re-raises a failure met while reading the attribute `attrName` as a parse error naming it.
[[noreturn]] void rethrowFromDeserializeAttr(const Exception& cause, const char* attrName);

// Declares exception kinds as expected for the lifetime of the object (a scope). An exception
// raised while its kind is not expected is reported as a fault on the "Orb" trace facility
// before it is thrown; an expected one is thrown silently.
//
//   Orb::Expect expect;
//   expect.add(Orb::ExceptionId::range);
//   try { MethodInstance(99); } catch (const Orb::RangeException&) { ... }
class Expect {
 public:
  Expect();
  ~Expect();
  Expect(const Expect&) = delete;
  Expect& operator=(const Expect&) = delete;

  void add(ExceptionId id);
  [[nodiscard]] static bool isExpected(ExceptionId id);

 private:
  uint32_t mask_ = 0;
  Expect* outer_;
};

}  // namespace Orb
