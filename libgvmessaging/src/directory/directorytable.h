#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <gvmessaging/api.h>

#include "src/directory/directory.h"
#include "src/directory/noticequeue.h"

namespace gv::directory {

/// The directory that a master keeps itself, in memory.
class GVMESSAGING_API DirectoryTable final : public Directory {
 public:
  /// `own` is the session that has the directory.
  explicit DirectoryTable(const Registrant& own);

  unsigned reserve(const Registrant& who, const std::string& name) override;
  void makeReady(const Registrant& who, unsigned id) override;
  void withdraw(const Registrant& who, unsigned id) override;
  void announce(const Registrant& who, const std::vector<std::string>& endpoints) override;
  void connectionLost(std::uint64_t connectionId) override;
  ServiceInfo find(const std::string& name) const override;
  std::vector<ServiceInfo> list() const override;
  void watch(Watcher watcher) override;

 private:
  struct Owner {
    Registrant who;
    std::vector<Url> endpoints;
    std::set<unsigned> services;
  };
  struct Entry {
    std::string name;
    Owner* owner;  // one of owners_, which stays as long as its entries
    bool isReady;
  };
  using Entries = std::map<unsigned, Entry>;

  Owner& ownerLocked(const Registrant& who);
  Entries::iterator ownEntryLocked(const Registrant& who, unsigned id);
  void eraseLocked(Entries::iterator entry);
  static ServiceInfo infoOf(const Entries::value_type& entry);

  const std::shared_ptr<NoticeQueue> notices_ = std::make_shared<NoticeQueue>();

  mutable std::mutex mutex_;  // guards what follows
  Entries entries_;
  std::unordered_map<std::string, Entries::iterator> byName_;
  std::map<std::uint64_t, Owner> owners_;                           // by connection
  std::unordered_map<std::string, std::uint64_t> ownersBySession_;  // the same, as connections
  unsigned lastId_ = directoryServiceId;
};

}  // namespace gv::directory
