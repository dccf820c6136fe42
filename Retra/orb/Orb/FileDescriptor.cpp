#include "Orb/FileDescriptor.h"

#include <fcntl.h>
#include <uv.h>

#include <exception>
#include <string>
#include <utility>

#include "Orb/ActivityManager.h"
#include "Orb/Exception.h"

namespace Orb {

namespace {

[[noreturn]] void cannotWatch(int descriptor, int error) {
  std::string message =
      "cannot watch file descriptor " + std::to_string(descriptor) + ": " + uv_strerror(error);
  throwRangeException(message.c_str());
}

}  // namespace

FileDescriptor::FileDescriptor(const Name& name) : Entity(name), manager_(Orb::activityManager()) {}

FileDescriptor::~FileDescriptor() {
  watchReleased();
}

void FileDescriptor::descriptorIs(int descriptor) {
  if (descriptor < 0) descriptor = -1;
  if (descriptor == descriptor_) return;
  descriptor_ = descriptor;
  if (descriptor_ >= 0) {
    if (nonBlocking_) {
      nonBlockingIs(true);
    } else {
      int flags = ::fcntl(descriptor_, F_GETFL);
      nonBlocking_ = flags >= 0 && (flags & O_NONBLOCK);
    }
  }
  watchUpdated();
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
  if (descriptor_ >= 0) {
    int flags = ::fcntl(descriptor_, F_GETFL);
    int wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (flags < 0 || (wanted != flags && ::fcntl(descriptor_, F_SETFL, wanted) < 0)) {
      throwRangeException("cannot change O_NONBLOCK of file descriptor");
    }
  }
  nonBlocking_ = nonBlocking;
}

void FileDescriptor::notifyOnReadableIs(bool notify) {
  if (notify == notifyOnReadable_) return;
  notifyOnReadable_ = notify;
  watchUpdated();
}

void FileDescriptor::notifyOnWritableIs(bool notify) {
  if (notify == notifyOnWritable_) return;
  notifyOnWritable_ = notify;
  watchUpdated();
}

void FileDescriptor::watchUpdated() {
  const bool wanted = descriptor_ >= 0 && (notifyOnReadable_ || notifyOnWritable_);
  if (poll_ && (!wanted || watched_ != descriptor_)) watchReleased();
  if (!wanted) return;
  if (!poll_) {
    // libuv allows one poll handle per descriptor; a stale watcher of a reused number yields.
    if (FileDescriptor* other = manager_->watcher(descriptor_)) other->watchReleased();
    auto* poll = new uv_poll_t;
    if (int error = uv_poll_init_socket(manager_->loop(), poll, descriptor_); error != 0) {
      delete poll;  // never registered with the loop
      cannotWatch(descriptor_, error);
    }
    poll->data = this;
    poll_ = poll;
    watched_ = descriptor_;
    manager_->handleOpened();
    manager_->watcherIs(descriptor_, this);
    nonBlocking_ = true;  // uv_poll_init_socket made it so
  }
  int events = UV_PRIORITIZED;
  if (notifyOnReadable_) events |= UV_READABLE;
  if (notifyOnWritable_) events |= UV_WRITABLE;
  if (int error = uv_poll_start(poll_, events, &FileDescriptor::onPoll); error != 0) {
    watchReleased();
    cannotWatch(descriptor_, error);
  }
}

void FileDescriptor::watchReleased() {
  if (!poll_) return;
  uv_poll_t* poll = std::exchange(poll_, nullptr);
  manager_->watcherDel(watched_, this);
  watched_ = -1;
  poll->data = nullptr;  // the handle outlives us until its close callback
  uv_close(reinterpret_cast<uv_handle_t*>(poll), &FileDescriptor::onPollClosed);
}

void FileDescriptor::events(int status, int events) {
  const uv_poll_t* poll = poll_;
  // An error or hang-up on the descriptor (a refused connect, a reset) reaches the observers as
  // readiness of whatever they watch, as poll(2) reports it: their next read or write returns
  // the error. libuv has stopped the handle; it reports again once the watch changes.
  if (status < 0)
    events = (notifyOnReadable_ ? UV_READABLE : 0) | (notifyOnWritable_ ? UV_WRITABLE : 0);
  // After each visit: a callback may have moved or dropped the watch, or turned a flag off.
  if ((events & UV_READABLE) && notifyOnReadable_) {
    ++readableCount_;
    notifiees().doVisit(&NotifieeConst::onReadableCount);
    if (poll_ != poll) return;
  }
  if ((events & UV_WRITABLE) && notifyOnWritable_) {
    ++writableCount_;
    notifiees().doVisit(&NotifieeConst::onWritableCount);
    if (poll_ != poll) return;
  }
  if (events & UV_PRIORITIZED) {
    ++exceptionPendingCount_;
    notifiees().doVisit(&NotifieeConst::onExceptionPendingCount);
  }
}

void FileDescriptor::onPoll(uv_poll_s* poll, int status, int events) {
  auto* self = static_cast<FileDescriptor*>(poll->data);
  if (!self) return;
  Ptr<FileDescriptor> hold(self);  // an observer may drop the last reference
  self->manager_->dispatchNoted();
  try {
    self->events(status, events);
  } catch (const std::exception& e) {
    ActivityManager::callbackFailed("file descriptor", e.what());
  } catch (...) {
    ActivityManager::callbackFailed("file descriptor", "unknown exception");
  }
}

void FileDescriptor::onPollClosed(uv_handle_s* handle) {
  ActivityManager* manager = ActivityManager::of(handle->loop);
  delete reinterpret_cast<uv_poll_t*>(handle);
  manager->handleClosed();
}

}  // namespace Orb
