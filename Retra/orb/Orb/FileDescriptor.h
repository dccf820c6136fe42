#pragma once

#include <cstdint>

#include "Orb/Entity.h"

struct uv_handle_s;
struct uv_poll_s;

namespace Orb {

class ActivityManager;

// An operating-system file descriptor (a socket or a pipe) watched by the activity loop. The
// loop reports readiness by incrementing a counter and notifying observers:
//
//   readableCount          the descriptor has data to read, or the peer closed it
//   writableCount          a write would not block
//   exceptionPendingCount  priority data (TCP urgent data) is waiting
//
// Readiness is level-triggered: while data stays unread, every turn reports it again. An error
// or hang-up on the descriptor (a refused connect, a reset connection) is reported as readiness
// of every direction being watched, as poll(2) does: the observer's next read or write returns
// the error.
//
//   class Reader : public Orb::FileDescriptor::NotifieeConst {
//     void onReadableCount() override { ::read(notifier()->descriptor(), ...); }
//   };
//   auto fd = Orb::allocate<Orb::FileDescriptor>(Orb::Name());
//   fd->descriptorIs(socket);
//   fd->notifyOnReadableIs(true);       // the loop watches it from now on
//   auto reader = Orb::allocate<Reader>();
//   reader->notifierIs(fd);
//
// The loop watches while `descriptor()` is not -1 and `notifyOnReadable()` or
// `notifyOnWritable()` is set, with one libuv poll handle. The object never closes the
// descriptor: its owner does, after setting the descriptor to -1 (or destroying the object) so
// that the loop stops watching first. At most one `FileDescriptor` watches a given descriptor: a
// second one that starts watching it takes the watch over. Observers may come and go, and the
// object may be destroyed, inside the callbacks. An exception thrown by a callback is traced at
// level 1 on the "Orb" facility and the loop goes on.
class FileDescriptor : public Entity {
 public:
  class NotifieeConst : public BaseNotifiee<FileDescriptor> {
   public:
    virtual void onReadableCount() {}
    virtual void onWritableCount() {}
    virtual void onExceptionPendingCount() {}

   protected:
    NotifieeConst() = default;
  };
  using Notifiee = NotifieeConst;

  explicit FileDescriptor(const Name& name);

  // The descriptor, -1 for none. Changing it moves the watch to the new descriptor; -1 stops
  // watching and releases the poll handle. A descriptor the loop cannot watch (a regular file,
  // a closed number) raises the range exception "cannot watch file descriptor" once watching
  // would start; the attribute keeps the new value, unwatched.
  [[nodiscard]] int descriptor() const noexcept { return descriptor_; }
  void descriptorIs(int descriptor);

  // Whether O_NONBLOCK is set on the descriptor. Setting it changes the descriptor at once; a
  // new descriptor is made non-blocking while this is true, and otherwise read as it is. libuv
  // makes every descriptor it watches non-blocking, so watching sets this to true.
  [[nodiscard]] bool nonBlocking() const noexcept { return nonBlocking_; }
  void nonBlockingIs(bool nonBlocking);

  // Which readiness the loop watches for; with both false it watches nothing and releases the
  // poll handle. Exceptional conditions are watched whenever either is on.
  [[nodiscard]] bool notifyOnReadable() const noexcept { return notifyOnReadable_; }
  void notifyOnReadableIs(bool notify);
  [[nodiscard]] bool notifyOnWritable() const noexcept { return notifyOnWritable_; }
  void notifyOnWritableIs(bool notify);

  // How often the loop has reported each condition.
  [[nodiscard]] uint64_t readableCount() const noexcept { return readableCount_; }
  [[nodiscard]] uint64_t writableCount() const noexcept { return writableCount_; }
  [[nodiscard]] uint64_t exceptionPendingCount() const noexcept { return exceptionPendingCount_; }

  // Whether the loop holds a poll handle for the descriptor. After an error has been reported
  // the handle stays but reports nothing more until the descriptor or a watch flag changes.
  [[nodiscard]] bool isWatching() const noexcept { return poll_ != nullptr; }

 protected:
  ~FileDescriptor() override;

 private:
  friend class ActivityManager;

  static void onPoll(uv_poll_s* poll, int status, int events);
  static void onPollClosed(uv_handle_s* handle);

  // Starts, changes or stops the watch to match the attributes.
  void watchUpdated();
  void watchReleased();
  void events(int status, int events);

  ActivityManager* manager_;
  uv_poll_s* poll_ = nullptr;
  int watched_ = -1;  // the descriptor poll_ was made for
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  uint64_t readableCount_ = 0;
  uint64_t writableCount_ = 0;
  uint64_t exceptionPendingCount_ = 0;
};

}  // namespace Orb
