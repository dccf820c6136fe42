#pragma once

#include "Dnsr/ResolutionRecord.h"
#include "Orb/Attribute.h"
#include "Orb/Entity.h"
#include "Orb/HashMap.h"
#include "Orb/Name.h"
#include "Orb/Ptr.h"

// record  host name -> the record of that host; the mutators are written by hand
#define DNSR_RESOLUTION_RECORD_DIR_ATTRIBUTES(X) \
  X(DIRECTORY, record, Orb::Name, Orb::Ptr<Dnsr::ResolutionRecord>, onRecord, onRecordImmediate)

namespace Dnsr {

// The resolver service's results (type "Dnsr::ResolutionRecordDir"): a collection `record` of
// `ResolutionRecord` entities keyed by host name. The directory owns its records and is their
// parent; the service (`DnsrSm`) creates and deletes them, clients observe.
//
// Adding a record and removing one call `onRecord(name)` and then `onRecordImmediate()` on the
// observers, after the collection has changed (so `record(name)` is null when the notification
// is about a removal).
//
//   class Watch : public Dnsr::ResolutionRecordDir::NotifieeConst {
//     void onRecord(const Orb::Name& name) override {
//       if (auto record = notifier()->record(name)) follow(record);
//     }
//   };
class ResolutionRecordDir : public Orb::Entity {
 public:
  using RecordMap = Orb::HashMap<Orb::Name, Orb::Ptr<ResolutionRecord>>;

  class NotifieeConst : public Orb::BaseNotifiee<ResolutionRecordDir> {
   public:
    DNSR_RESOLUTION_RECORD_DIR_ATTRIBUTES(ORB_NOTIFIEE_CALLBACKS)

   protected:
    NotifieeConst() = default;
  };
  using Notifiee = NotifieeConst;

  ORB_ATTRIBUTE_IDS(Orb::firstEntityAttributeId, DNSR_RESOLUTION_RECORD_DIR_ATTRIBUTES);

  explicit ResolutionRecordDir(const Orb::Name& name) : Orb::Entity(name) {}

  [[nodiscard]] const Orb::TypeNode* typeNode() const override;

  // The record of host `name`, or null.
  [[nodiscard]] Orb::Ptr<const ResolutionRecord> record(const Orb::Name& name) const;
  [[nodiscard]] Orb::Ptr<ResolutionRecord> record(const Orb::Name& name);
  // The record of host `name`, created (not valid, no addresses) and announced when there is
  // none yet.
  Orb::Ptr<ResolutionRecord> recordIs(const Orb::Name& name);
  // Takes the record of `name` out of the directory and returns it (null when there was none).
  Orb::Ptr<ResolutionRecord> recordDel(const Orb::Name& name);

  [[nodiscard]] const RecordMap& records() const noexcept { return record_; }
  [[nodiscard]] RecordMap::const_iterator begin() const noexcept { return record_.begin(); }
  [[nodiscard]] RecordMap::const_iterator end() const noexcept { return record_.end(); }
  [[nodiscard]] size_t recordCount() const noexcept { return record_.size(); }

 protected:
  ~ResolutionRecordDir() override;

 private:
  void recordNotified(const Orb::Name& name);

  RecordMap record_;
};

}  // namespace Dnsr
