#include "Dnsr/ResolutionRecordDir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Notes each record notification as "host+" when the record is present then, else "host-".
class Log : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  using Dnsr::ResolutionRecordDir::NotifieeConst::onRecord;
  void onRecord(const Orb::Name& name) override {
    events += name.string().str() + (notifier()->record(name) ? "+ " : "- ");
  }
  std::string events;
};

TEST(ResolutionRecordDirTest, OwnsItsRecordsAndAnnouncesRealChanges) {
  auto dir = Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  auto log = Orb::allocate<Log>();
  log->notifierIs(dir);
  auto record = dir->recordIs("a.test");
  EXPECT_EQ(record->fullName(), "dnsrRecord/a.test");
  EXPECT_EQ(dir->recordIs("a.test"), record);  // found: no second record, no notification
  EXPECT_EQ(dir->recordDel("a.test"), record);
  EXPECT_EQ(dir->recordDel("a.test"), nullptr);
  EXPECT_EQ(log->events, "a.test+ a.test- ");
  record = dir->recordIs("b.test");
  log = nullptr;
  dir = nullptr;  // records outlive their directory safely
  EXPECT_EQ(record->fullName(), "b.test");
}

}  // namespace
