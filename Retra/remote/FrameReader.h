#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Retra::Wire {

// Cuts a byte stream into frames (see WireProtocol.h). Bytes arrive in any pieces; each complete
// frame is handed out once, in order.
//
//   FrameReader reader;
//   reader.append(data, n);
//   std::string_view frame;
//   while (reader.next(&frame)) handle(frame);   // valid until the next append or next()
//   if (reader.oversize()) refuse();
//
// A frame header announcing more than `maxFrame` bytes makes the reader stop for good:
// `oversize()` turns true and `next` returns false from then on, so a peer cannot make the reader
// hold more than `maxFrame` plus one read's worth of bytes.
class FrameReader {
 public:
  explicit FrameReader(size_t maxFrame);

  void append(const char* data, size_t size);
  // The next complete frame's payload, if there is one.
  bool next(std::string_view* payload);

  [[nodiscard]] bool oversize() const noexcept { return oversize_; }
  // Bytes held that belong to no complete frame yet.
  [[nodiscard]] size_t pending() const noexcept { return buffer_.size() - start_; }

 private:
  size_t maxFrame_;
  std::string buffer_;
  size_t start_ = 0;  // where the next frame's header begins
  bool oversize_ = false;
};

}  // namespace Retra::Wire
