#include "Orb/Exception.h"

#include "Orb/String.h"
#include "Orb/Trace.h"

namespace Orb {

namespace {

thread_local Expect* innermostExpect = nullptr;

const char* exceptionName(ExceptionId id) {
  switch (id) {
    case ExceptionId::range:
      return "range";
    case ExceptionId::internal:
      return "internal";
    case ExceptionId::parse:
      return "parse";
  }
  return "unknown";
}


template <class E>
[[noreturn]] void raise(std::string message) {
  E e(std::move(message));
  if (!Expect::isExpected(e.id())) {
    char buffer[256];
    if (auto t = TraceHelper::createIfEnabled(frameworkTrace(), 1, buffer)) {
      t->stream() << "unexpected " << exceptionName(e.id()) << " exception: " << e.what();
      t->trace("Orb", __LINE__, __func__);
    }
  }
  throw e;
}

}  // namespace

void throwRangeException(const char* message) { raise<RangeException>(message); }

void throwInternalException(const char* message) { raise<InternalException>(message); }

void throwInternalException(const String& message) {
  raise<InternalException>(std::string(message.view()));
}

void throwParseException(const std::string& message) { raise<ParseException>(message); }

void rethrowFromDeserializeAttr(const Exception& cause, const char* attrName) {
  raise<ParseException>(std::string("cannot read attribute '") + attrName + "': " + cause.what());
}

Expect::Expect() : outer_(innermostExpect) { innermostExpect = this; }

Expect::~Expect() { innermostExpect = outer_; }

void Expect::add(ExceptionId id) { mask_ |= 1u << static_cast<unsigned>(id); }

bool Expect::isExpected(ExceptionId id) {
  for (const Expect* e = innermostExpect; e; e = e->outer_) {
    if (e->mask_ & (1u << static_cast<unsigned>(id))) return true;
  }
  return false;
}

}  // namespace Orb
