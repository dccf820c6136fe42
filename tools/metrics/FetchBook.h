#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Orb/HashMap.h"
#include "Orb/Ptr.h"
#include "Retra/engine/Root.h"
#include "Retra/model/RequestKey.h"
#include "Retra/model/ResponseDir.h"
#include "metrics/FetchRecord.h"

namespace RetraMetrics {

// A `FetchRecord` for every response of every user followed: from `userIs` on, each response
// that appears in the user's `retraResponse()` gets its record at once (so no fetch is missed),
// and loses it when the response goes.
//
//   RetraMetrics::FetchBook book;
//   book.userIs(uid, root);          // before requests are written into root, ideally
//   for (const auto& [uid, user] : book.users())
//     for (const auto& [key, record] : user->records) ...
//
// Ownership: the book holds each followed root and its records; the records hold their
// responses until these leave the directory.
class FetchBook {
 public:
  struct User {
    uint32_t uid = 0;
    Orb::Ptr<Retra::Root> root;
    Orb::HashMap<Retra::RequestKey, Orb::Ptr<FetchRecord>> records;
  };

  FetchBook() = default;
  ~FetchBook();
  FetchBook(const FetchBook&) = delete;
  FetchBook& operator=(const FetchBook&) = delete;

  // Follows `root` as `uid`'s; nothing when the uid is followed already with this root.
  void userIs(uint32_t uid, const Orb::Ptr<Retra::Root>& root);
  [[nodiscard]] const std::map<uint32_t, std::unique_ptr<User>>& users() const noexcept {
    return users_;
  }
  [[nodiscard]] size_t recordCount() const;

 private:
  class DirectoryWatch;

  std::map<uint32_t, std::unique_ptr<User>> users_;
  std::map<uint32_t, Orb::Ptr<Retra::ResponseDir::NotifieeConst>> watches_;
};

}  // namespace RetraMetrics
