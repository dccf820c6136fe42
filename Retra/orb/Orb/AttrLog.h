#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/String.h"

namespace Orb {

class EnumDescriptor;

// The attribute log: the framework's compact binary form of values. A type streams its
// attributes in declaration order into an `AttrLogOut`, and its streaming constructor reads them
// back in the same order from an `AttrLogIn`.
//
// Every value is a one-byte kind tag followed by its payload:
//
//   tag   kind         payload
//   0x01  unsigned     LEB128 varint (any width; the reader checks the width it asks for)
//   0x02  signed       zigzag-mapped, then LEB128 varint
//   0x03  double       8 bytes: the IEEE 754 bits, little-endian (NaN payloads kept)
//   0x04  bool         1 byte: 0x00 or 0x01
//   0x05  string       LEB128 byte count, then the bytes
//   0x06  enumeration  LEB128 enumerator number (32 bits)
//   0x07  compound     LEB128 value count, then that many values (which may be compounds)
//
// Varints are canonical: at most 10 bytes, no redundant zero high bytes. Every value takes at
// least two bytes, so a compound count is bounded by the bytes that remain.
//
// A compound frames a nested value (a key inside a request) or a collection (header pairs):
//
//   Orb::AttrLogOut out;
//   out.writeEnum(method);
//   out.beginCompound(uint32_t(headers.size()));
//   for (auto& [name, value] : headers) {
//     out.beginCompound(2);
//     out.writeString(name);
//     out.writeString(value);
//     out.endCompound();
//   }
//   out.endCompound();
//
//   Orb::AttrLogIn in(out.bytes());
//   uint32_t method = in.readEnum(methodType);
//   for (uint32_t n = in.beginCompound(); n > 0; --n) {
//     in.beginCompound();
//     Orb::String name = in.readString();
//     Orb::String value = in.readString();
//     in.endCompound();
//   }
//   in.endCompound();
//   in.expectEnd();
enum class AttrKind : uint8_t {
  unsignedInt = 0x01,
  signedInt = 0x02,
  real = 0x03,
  boolean = 0x04,
  string = 0x05,
  enumeration = 0x06,
  compound = 0x07,
};

// "unsigned", "signed", "double", ...; "unknown" for a number that is no kind.
[[nodiscard]] const char* attrKindName(AttrKind kind) noexcept;

// Builds an attribute log. Writing more values into a compound than it declared, or closing it
// with values still due, is a fault of the caller and raises the internal exception.
class AttrLogOut {
 public:
  void writeU8(uint8_t value) { writeUnsigned(value); }
  void writeU16(uint16_t value) { writeUnsigned(value); }
  void writeU32(uint32_t value) { writeUnsigned(value); }
  void writeU64(uint64_t value) { writeUnsigned(value); }
  void writeI32(int32_t value) { writeSigned(value); }
  void writeI64(int64_t value) { writeSigned(value); }
  void writeDouble(double value);
  void writeBool(bool value);
  void writeString(std::string_view bytes);
  void writeString(const String& bytes) { writeString(bytes.view()); }
  void writeString(const std::string& bytes) { writeString(std::string_view(bytes)); }
  void writeString(const char* text) { writeString(std::string_view(text ? text : "")); }
  void writeEnum(uint32_t value);

  // Opens a compound of `valueCount` values; the next `valueCount` values written belong to it.
  void beginCompound(uint32_t valueCount);
  void endCompound();

  // The encoded bytes so far. Raises the internal exception while a compound is open.
  [[nodiscard]] const std::string& bytes() const;

 private:
  void writeUnsigned(uint64_t value);
  void writeSigned(int64_t value);
  void tag(AttrKind kind);
  void varint(uint64_t value);

  struct OpenCompound {
    uint32_t declared;
    uint32_t due;
  };
  std::string bytes_;
  std::vector<OpenCompound> open_;  // innermost last
};

// Reads an attribute log back. The reader does not own the bytes: they must outlive it.
//
// A value of another kind than asked for, a truncated buffer, an over-long varint, a number
// outside the width asked for, a string or compound longer than the bytes left, or a read past
// the values of a compound raises the parse exception; the reader never reads outside the
// buffer, and allocates at most what the buffer's size justifies. After a parse exception the
// reader is not used again.
class AttrLogIn {
 public:
  AttrLogIn(const char* data, size_t size) : it_(data), begin_(data), end_(data + size) {}
  explicit AttrLogIn(std::string_view bytes) : AttrLogIn(bytes.data(), bytes.size()) {}

  [[nodiscard]] uint8_t readU8() { return uint8_t(readUnsigned(UINT8_MAX)); }
  [[nodiscard]] uint16_t readU16() { return uint16_t(readUnsigned(UINT16_MAX)); }
  [[nodiscard]] uint32_t readU32() { return uint32_t(readUnsigned(UINT32_MAX)); }
  [[nodiscard]] uint64_t readU64() { return readUnsigned(UINT64_MAX); }
  [[nodiscard]] int32_t readI32() { return int32_t(readSigned(INT32_MIN, INT32_MAX)); }
  [[nodiscard]] int64_t readI64() { return readSigned(INT64_MIN, INT64_MAX); }
  [[nodiscard]] double readDouble();
  [[nodiscard]] bool readBool();
  [[nodiscard]] String readString();
  [[nodiscard]] uint32_t readEnum();
  // An enumerator number that `type` has no enumerator for is a parse error too.
  [[nodiscard]] uint32_t readEnum(const EnumDescriptor& type);

  // Enters a compound and returns its value count.
  uint32_t beginCompound();
  // Leaves the innermost compound, skipping the values not read (a newer writer's additions).
  void endCompound();
  // Moves past the next value, whatever its kind.
  void skipValue();

  // The kind of the next value, without reading it; the parse exception at the end.
  [[nodiscard]] AttrKind nextKind() const;
  // Values of the innermost compound not read yet; 0 outside any compound.
  [[nodiscard]] uint32_t valuesLeft() const noexcept {
    return open_.empty() ? 0 : open_.back().due;
  }
  [[nodiscard]] bool atEnd() const noexcept { return it_ == end_; }
  // Raises the parse exception when bytes are left after the last value; the internal exception
  // when a compound was not left.
  void expectEnd() const;
  [[nodiscard]] size_t offset() const noexcept { return size_t(it_ - begin_); }

 private:
  [[nodiscard]] uint64_t readUnsigned(uint64_t max);
  [[nodiscard]] int64_t readSigned(int64_t min, int64_t max);
  // Counts the value against the innermost compound and reads its tag, which must be `kind`.
  void expectKind(AttrKind kind);
  // Counts the next value against the innermost compound.
  void countValue();
  [[nodiscard]] AttrKind peekTag() const;
  [[nodiscard]] AttrKind readTag();
  [[nodiscard]] uint64_t varint();
  [[nodiscard]] uint32_t compoundCount();
  // Moves past `count` payload bytes, which must be there.
  const char* take(size_t count, const char* what);
  [[noreturn]] void fail(const std::string& what, size_t at) const;

  struct OpenCompound {
    uint32_t declared;
    uint32_t due;
  };
  const char* it_;
  const char* begin_;
  const char* end_;
  size_t valueStart_ = 0;           // offset of the tag of the value being read, for messages
  std::vector<OpenCompound> open_;  // innermost last
};

}  // namespace Orb
