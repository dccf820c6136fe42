#include "Dnsr/ResolutionRecordDir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Notes each record notification with whether the record was present at that moment.
class Log : public Dnsr::ResolutionRecordDir::NotifieeConst {
 public:
  using Dnsr::ResolutionRecordDir::NotifieeConst::onRecord;
  void onRecord(const Orb::Name& name) override {
    events.push_back(name.string().str() + (notifier()->record(name) ? " added" : " removed"));
  }
  std::vector<std::string> events;
};

TEST(ResolutionRecordDirTest, OwnsItsRecordsAndAnnouncesRealChanges) {
  auto dir = Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  auto log = Orb::allocate<Log>();
  log->notifierIs(dir);

  auto record = dir->recordIs("a.test");
  EXPECT_EQ(record->hostname(), "a.test");
  EXPECT_EQ(record->name(), "a.test");
  EXPECT_EQ(record->parent(), dir.ptr());
  EXPECT_EQ(record->parentAttrName(), "record");
  EXPECT_EQ(dir->recordIs("a.test"), record);  // no second record, no second notification
  EXPECT_EQ(dir->recordCount(), 1u);

  EXPECT_EQ(dir->recordDel("a.test"), record);
  EXPECT_EQ(record->parent(), nullptr);
  EXPECT_EQ(dir->recordDel("a.test"), nullptr);
  EXPECT_EQ(log->events, (std::vector<std::string>{"a.test added", "a.test removed"}));
}

TEST(ResolutionRecordDirTest, RecordsOutliveTheirDirectorySafely) {
  auto dir = Orb::allocate<Dnsr::ResolutionRecordDir>("dnsrRecord");
  Orb::Ptr<Dnsr::ResolutionRecord> record = dir->recordIs("a.test");
  dir = nullptr;
  EXPECT_EQ(record->parent(), nullptr);
  EXPECT_EQ(record->fullName(), "a.test");
}

}  // namespace
