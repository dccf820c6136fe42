#include "Orb/AttrLog.h"

#include <bit>
#include <cinttypes>

#include "Orb/Enumeration.h"
#include "Orb/Exception.h"
#include "Orb/ValueText.h"

namespace Orb {

namespace {

constexpr size_t maxVarintBytes = 10;  // 64 bits in 7-bit groups
// Every value is a tag and at least one payload byte.
constexpr uint64_t minValueBytes = 2;

uint64_t zigzag(int64_t value) noexcept {
  return (uint64_t(value) << 1) ^ (value < 0 ? UINT64_MAX : 0);
}

int64_t unzigzag(uint64_t value) noexcept {
  return int64_t((value >> 1) ^ (0 - (value & 1)));
}

bool isKind(uint8_t tag) noexcept {
  return tag >= uint8_t(AttrKind::unsignedInt) && tag <= uint8_t(AttrKind::compound);
}

}  // namespace

const char* attrKindName(AttrKind kind) noexcept {
  switch (kind) {
    case AttrKind::unsignedInt:
      return "unsigned";
    case AttrKind::signedInt:
      return "signed";
    case AttrKind::real:
      return "double";
    case AttrKind::boolean:
      return "bool";
    case AttrKind::string:
      return "string";
    case AttrKind::enumeration:
      return "enumeration";
    case AttrKind::compound:
      return "compound";
  }
  return "unknown";
}

// -- AttrLogOut ------------------------------------------------------------------------------

void AttrLogOut::tag(AttrKind kind) {
  if (!open_.empty()) {
    OpenCompound& inner = open_.back();
    if (inner.due == 0) {
      throwInternalException(format(
          "AttrLogOut: value written past a compound of %" PRIu32 " values", inner.declared));
    }
    --inner.due;
  }
  bytes_ += char(kind);
}

void AttrLogOut::varint(uint64_t value) {
  while (value >= 0x80) {
    bytes_ += char(0x80 | (value & 0x7f));
    value >>= 7;
  }
  bytes_ += char(value);
}

void AttrLogOut::writeUnsigned(uint64_t value) {
  tag(AttrKind::unsignedInt);
  varint(value);
}

void AttrLogOut::writeSigned(int64_t value) {
  tag(AttrKind::signedInt);
  varint(zigzag(value));
}

void AttrLogOut::writeDouble(double value) {
  tag(AttrKind::real);
  auto bits = std::bit_cast<uint64_t>(value);
  for (int i = 0; i < 8; ++i) bytes_ += char(bits >> (8 * i));
}

void AttrLogOut::writeBool(bool value) {
  tag(AttrKind::boolean);
  bytes_ += char(value ? 1 : 0);
}

void AttrLogOut::writeString(std::string_view bytes) {
  tag(AttrKind::string);
  varint(bytes.size());
  bytes_.append(bytes);
}

void AttrLogOut::writeEnum(uint32_t value) {
  tag(AttrKind::enumeration);
  varint(value);
}

void AttrLogOut::beginCompound(uint32_t valueCount) {
  tag(AttrKind::compound);
  varint(valueCount);
  open_.push_back({valueCount, valueCount});
}

void AttrLogOut::endCompound() {
  if (open_.empty()) throwInternalException("AttrLogOut: endCompound without beginCompound");
  const OpenCompound& inner = open_.back();
  if (inner.due != 0) {
    throwInternalException(format("AttrLogOut: compound closed with %" PRIu32 " of %" PRIu32
                                  " values not written",
                                  inner.due, inner.declared));
  }
  open_.pop_back();
}

const std::string& AttrLogOut::bytes() const {
  if (!open_.empty()) throwInternalException("AttrLogOut: bytes taken while a compound is open");
  return bytes_;
}

// -- AttrLogIn -------------------------------------------------------------------------------

void AttrLogIn::fail(const std::string& what, size_t at) const {
  throwParseException("attribute log, byte " + std::to_string(at) + ": " + what);
}

const char* AttrLogIn::take(size_t count, const char* what) {
  size_t left = size_t(end_ - it_);
  if (count > left) {
    fail(format("truncated: %s needs %zu bytes, %zu left", what, count, left).str(), offset());
  }
  const char* start = it_;
  it_ += count;
  return start;
}

void AttrLogIn::countValue() {
  valueStart_ = offset();
  if (open_.empty()) return;
  OpenCompound& inner = open_.back();
  if (inner.due == 0) {
    fail(format("read past the end of a compound of %" PRIu32 " values", inner.declared).str(),
         valueStart_);
  }
  --inner.due;
}

AttrKind AttrLogIn::peekTag() const {
  if (it_ == end_) fail("truncated: a value was expected", offset());
  auto tag = uint8_t(*it_);
  if (!isKind(tag)) fail(format("unknown kind tag 0x%02x", tag).str(), offset());
  return AttrKind(tag);
}

AttrKind AttrLogIn::readTag() {
  valueStart_ = offset();
  AttrKind kind = peekTag();
  ++it_;
  return kind;
}

void AttrLogIn::expectKind(AttrKind kind) {
  countValue();
  AttrKind found = readTag();
  if (found != kind) {
    fail(std::string("expected ") + attrKindName(kind) + " but found " + attrKindName(found),
         valueStart_);
  }
}

uint64_t AttrLogIn::varint() {
  uint64_t value = 0;
  for (size_t i = 0; i < maxVarintBytes; ++i) {
    if (it_ == end_) fail("truncated varint", valueStart_);
    auto byte = uint8_t(*it_++);
    // The tenth byte holds the 64th bit alone.
    if (i == maxVarintBytes - 1 && byte > 1) fail("over-long varint", valueStart_);
    value |= uint64_t(byte & 0x7f) << (7 * i);
    if (!(byte & 0x80)) {
      if (byte == 0 && i > 0) fail("over-long varint", valueStart_);
      return value;
    }
  }
  fail("over-long varint", valueStart_);
}

uint32_t AttrLogIn::compoundCount() {
  uint64_t count = varint();
  if (count > UINT32_MAX || count * minValueBytes > uint64_t(end_ - it_)) {
    fail(
        format("compound of %" PRIu64 " values, but only %zu bytes left", count, size_t(end_ - it_))
            .str(),
        valueStart_);
  }
  return uint32_t(count);
}

uint64_t AttrLogIn::readUnsigned(uint64_t max) {
  expectKind(AttrKind::unsignedInt);
  uint64_t value = varint();
  if (value > max) {
    fail(format("unsigned %" PRIu64 " is above %" PRIu64, value, max).str(), valueStart_);
  }
  return value;
}

int64_t AttrLogIn::readSigned(int64_t min, int64_t max) {
  expectKind(AttrKind::signedInt);
  int64_t value = unzigzag(varint());
  if (value < min || value > max) {
    fail(format("signed %" PRId64 " is outside %" PRId64 " to %" PRId64, value, min, max).str(),
         valueStart_);
  }
  return value;
}

double AttrLogIn::readDouble() {
  expectKind(AttrKind::real);
  const auto* bytes = reinterpret_cast<const uint8_t*>(take(8, "a double"));
  uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits |= uint64_t(bytes[i]) << (8 * i);
  return std::bit_cast<double>(bits);
}

bool AttrLogIn::readBool() {
  expectKind(AttrKind::boolean);
  auto byte = uint8_t(*take(1, "a bool"));
  if (byte > 1) fail(format("bool byte 0x%02x is neither 0 nor 1", byte).str(), valueStart_);
  return byte == 1;
}

String AttrLogIn::readString() {
  expectKind(AttrKind::string);
  uint64_t length = varint();
  if (length > uint64_t(end_ - it_)) {
    fail(format("string of %" PRIu64 " bytes, but only %zu left", length, size_t(end_ - it_)).str(),
         valueStart_);
  }
  const char* bytes = take(size_t(length), "a string");
  return String(bytes, size_t(length));
}

uint32_t AttrLogIn::readEnum() {
  expectKind(AttrKind::enumeration);
  uint64_t value = varint();
  if (value > UINT32_MAX) {
    fail(format("enumerator number %" PRIu64 " is above 32 bits", value).str(), valueStart_);
  }
  return uint32_t(value);
}

uint32_t AttrLogIn::readEnum(const EnumDescriptor& type) {
  uint32_t value = readEnum();
  for (const EnumDescriptor::Enumerator& e : type.enumerators()) {
    if (e.value == value) return value;
  }
  fail(format("%.*s has no enumerator numbered %" PRIu32, int(type.name().size()),
              type.name().data(), value)
           .str(),
       valueStart_);
}

uint32_t AttrLogIn::beginCompound() {
  expectKind(AttrKind::compound);
  uint32_t count = compoundCount();
  open_.push_back({count, count});
  return count;
}

void AttrLogIn::endCompound() {
  if (open_.empty()) throwInternalException("AttrLogIn: endCompound without beginCompound");
  while (open_.back().due > 0) skipValue();
  open_.pop_back();
}

void AttrLogIn::skipValue() {
  // Iterative, so that deeply nested compounds cannot exhaust the stack.
  countValue();
  uint64_t pending = 1;
  for (;;) {
    // The values inside a skipped compound are not counted against any open compound.
    AttrKind kind = readTag();
    switch (kind) {
      case AttrKind::unsignedInt:
      case AttrKind::signedInt:
        (void)varint();
        break;
      case AttrKind::enumeration:
        if (varint() > UINT32_MAX) fail("enumerator number above 32 bits", valueStart_);
        break;
      case AttrKind::real:
        take(8, "a double");
        break;
      case AttrKind::boolean:
        if (uint8_t(*take(1, "a bool")) > 1) fail("bool byte neither 0 nor 1", valueStart_);
        break;
      case AttrKind::string: {
        uint64_t length = varint();
        if (length > uint64_t(end_ - it_)) fail("string longer than the bytes left", valueStart_);
        take(size_t(length), "a string");
        break;
      }
      case AttrKind::compound:
        pending += compoundCount();
        break;
    }
    if (--pending == 0) return;
  }
}

AttrKind AttrLogIn::nextKind() const {
  return peekTag();
}

void AttrLogIn::expectEnd() const {
  if (!open_.empty()) throwInternalException("AttrLogIn: expectEnd inside a compound");
  if (it_ != end_) {
    fail(format("%zu bytes left after the last value", size_t(end_ - it_)).str(), offset());
  }
}

}  // namespace Orb
