#include "Retra/remote/FrameReader.h"

#include <cstdint>

#include "Retra/remote/WireProtocol.h"

namespace Retra::Wire {

FrameReader::FrameReader(size_t maxFrame) : maxFrame_(maxFrame) {}

void FrameReader::append(const char* data, size_t size) {
  if (oversize_) return;
  // Drop what was handed out already before growing, so the buffer never holds more than the
  // frame being assembled and one read.
  if (start_ > 0) {
    buffer_.erase(0, start_);
    start_ = 0;
  }
  buffer_.append(data, size);
}

bool FrameReader::next(std::string_view* payload) {
  if (oversize_ || pending() < frameHeaderBytes) return false;
  const auto* header = reinterpret_cast<const unsigned char*>(buffer_.data() + start_);
  const size_t length = size_t(uint32_t(header[0]) << 24 | uint32_t(header[1]) << 16 |
                               uint32_t(header[2]) << 8 | uint32_t(header[3]));
  if (length > maxFrame_) {
    oversize_ = true;
    buffer_.clear();
    start_ = 0;
    return false;
  }
  if (pending() < frameHeaderBytes + length) return false;
  *payload = std::string_view(buffer_.data() + start_ + frameHeaderBytes, length);
  start_ += frameHeaderBytes + length;
  return true;
}

}  // namespace Retra::Wire
