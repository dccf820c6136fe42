#include "engine/support/TraceCapture.h"

#include "Orb/Trace.h"

namespace EngineTest {

TraceCapture::TraceCapture() {
  Orb::TraceHandle::outputIs(&out_);
  Orb::TraceHandle::configurationIs("RetraLib/0-9");
}

TraceCapture::~TraceCapture() {
  Orb::TraceHandle::configurationIs("");
  Orb::TraceHandle::outputIs(nullptr);
}

std::vector<TraceCapture::Line> TraceCapture::lines() const {
  // "<time> <facility> <level> <file>:<line> <function>: <message>"
  std::vector<Line> lines;
  std::istringstream in(out_.str());
  std::string text;
  while (std::getline(in, text)) {
    std::istringstream fields(text);
    std::string time, facility, where;
    Line line;
    fields >> time >> facility >> line.level >> where;
    const size_t start = text.find(where) + where.size() + 1;
    const size_t colon = text.find(": ", start);
    if (colon == std::string::npos) continue;
    line.function = text.substr(start, colon - start);
    line.message = text.substr(colon + 2);
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> TraceCapture::messages() const {
  std::vector<std::string> messages;
  for (const Line& line : lines()) messages.push_back(line.message);
  return messages;
}

bool TraceCapture::has(unsigned level, const std::string& message) const {
  for (const Line& line : lines()) {
    if (line.level == level && line.message == message) return true;
  }
  return false;
}

size_t TraceCapture::countStartingWith(const std::string& prefix) const {
  size_t count = 0;
  for (const Line& line : lines()) count += line.message.starts_with(prefix) ? 1 : 0;
  return count;
}

void TraceCapture::clear() {
  out_.str("");
  out_.clear();
}

}  // namespace EngineTest
