#include "SettingsArea.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "SettingsError.h"
#include "SettingsLimits.h"

namespace ondaro::host {
namespace {

constexpr int ATTEMPTS = 4;

std::string Timestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  gmtime_r(&now, &parts);
  char text[sizeof "yyyymmddThhmmssZ"] = "";
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

/// A name beside `path` that nothing has yet.
std::string NameForDamaged(const std::string& path) {
  const std::string base = path + ".damaged-" + Timestamp();
  std::string name = base;
  for (int n = 2; std::filesystem::exists(name); ++n) {
    name = base + "-" + std::to_string(n);
  }
  return name;
}

}  // namespace

/// Does the operation on an open database, and again where a new connection or database helps.
template <typename Operation>
auto SettingsArea::Attempt(Access access, Operation operation) {
  bool isSuspected = false;
  for (int attempt = 1;; ++attempt) {
    SettingsDatabase& database = Open(access);
    try {
      return operation(database);
    } catch (const SettingsError& error) {
      const bool hasFailed = error.What() == SettingsError::Kind::FAILED;
      if (error.What() == SettingsError::Kind::BUSY || (hasFailed && !database.Revoke())) {
        throw;
      }
      // A read that failed once can look like damage, so that is looked at twice.
      const bool isDamaged = error.What() == SettingsError::Kind::DAMAGED;
      m_damaged = isDamaged && isSuspected;
      isSuspected = isDamaged;
      m_database.reset();
      if (hasFailed || attempt == ATTEMPTS) {
        throw;
      }
    }
  }
}

std::optional<SettingsValue> SettingsArea::Query(std::string_view key) {
  std::lock_guard lock(m_mutex);
  return Attempt(Access::READ, [&](SettingsDatabase& database) {
    // A commit after this look at the bell changes its state, so what is remembered ends with it.
    const std::uint64_t before = m_bell ? m_bell->State() : 1;
    std::optional<SettingsValue> value = database.Get(key);
    if (SettingsBell::IsSettled(before)) {
      Remember(key, value, before);
    }
    return value;
  });
}

void SettingsArea::Remember(std::string_view key, const std::optional<SettingsValue>& value,
                            std::uint64_t state) {
  std::lock_guard lock(m_cacheMutex);
  m_cache.Put(key, value, state);
}

void SettingsArea::Write(std::string_view key, const SettingsValue& value) {
  std::lock_guard lock(m_mutex);
  Attempt(Access::WRITE, [&](SettingsDatabase& database) {
    if (!TryWrite(database, key, value)) {
      throw SettingsError(SettingsError::Kind::REPLACED, m_path + " keeps being replaced");
    }
  });
}

bool SettingsArea::TryWrite(SettingsDatabase& database, std::string_view key,
                            const SettingsValue& value) {
  m_bell->GiveWay();
  SettingsDatabase::Write write(database);
  const std::int64_t sequence = write.Append(key, value, m_bell->LastSequence());
  if (sequence % SETTINGS_TRIM_BATCH == 0) {
    // The last write before this one stays at least, by which the numbers go on.
    const std::int64_t slowest = m_bell->SlowestPosition().value_or(sequence - 1);
    write.TrimLog(std::clamp(slowest, sequence - SETTINGS_LOG_CAP, sequence - 1));
  }
  if (m_bell->Generation() != m_generation || !m_bell->Announce(sequence)) {
    return false;
  }
  try {
    write.Commit();
  } catch (...) {
    m_bell->Settle(sequence);
    throw;
  }
  const bool isLast = m_bell->Settle(sequence);
  m_bell->Ring();
  if (isLast) {
    Remember(key, value, SettingsBell::SettledState(sequence));
  }
  return true;
}

SettingsDatabase& SettingsArea::Open(Access access) {
  const bool isReplaced = m_bell && m_bell->Generation() != m_generation;
  const bool mustFindBell = access == Access::WRITE && !m_bell;
  if (m_database && !isReplaced && !mustFindBell) {
    return *m_database;
  }
  m_database.reset();
  if (m_path.empty()) {
    const std::string directory = m_directory();
    if (directory.empty()) {
      throw SystemFailure(std::string("directory of ") + m_name);
    }
    m_path = directory + "/" + m_name;
  }
  OpenBell(m_path + ".bell", access);
  OpenDatabase(m_path + ".db");
  return *m_database;
}

void SettingsArea::OpenBell(const std::string& path, Access access) {
  if (m_bell) {
    return;
  }
  try {
    m_bell = std::make_unique<SettingsBell>(path);
    m_knownBell.store(m_bell.get(), std::memory_order_release);
  } catch (const SettingsError&) {
    if (access == Access::WRITE) {
      throw;
    }
  }
}

void SettingsArea::OpenDatabase(const std::string& path) {
  if (!m_bell) {
    // Nothing may be written here, so there is nothing to number or to set aside.
    m_database = std::make_unique<SettingsDatabase>(path, m_durability, 0, [] {});
    return;
  }
  const SettingsBell::OpeningLock lock(*m_bell);
  if (m_damaged && m_bell->Generation() == m_generation) {
    SetAside(path);
  }
  m_damaged = false;
  bool isSuspected = false;
  for (int attempt = 1; !m_database; ++attempt) {
    try {
      m_database = std::make_unique<SettingsDatabase>(path, m_durability, m_bell->LastSequence(),
                                                      [this] { m_bell->AskForWay(); });
    } catch (const SettingsError& error) {
      if (error.What() != SettingsError::Kind::DAMAGED || attempt == ATTEMPTS) {
        throw;
      }
      if (isSuspected) {
        SetAside(path);
      }
      isSuspected = !isSuspected;
    }
  }
  m_generation = m_bell->Generation();
}

void SettingsArea::SetAside(const std::string& path) {
  const std::string name = NameForDamaged(path);
  // The database itself last: with its log gone it would only look older than it is.
  for (const char* suffix : {"-wal", "-shm", ""}) {
    if (std::rename((path + suffix).c_str(), (name + suffix).c_str()) != 0 && errno != ENOENT) {
      throw SystemFailure("set aside " + path + suffix);
    }
  }
  m_bell->MarkReplaced();
  LogSettingsError(path + " is damaged; it is kept as " + name + ", and a new one begun");
}

std::string SettingsArea::BellPath() {
  std::lock_guard lock(m_mutex);
  Open(Access::WRITE);
  return m_path + ".bell";
}

std::int64_t SettingsArea::Follow() {
  std::lock_guard lock(m_mutex);
  return Attempt(Access::WRITE, [&](SettingsDatabase& database) {
    // First the place, by which no later write trims what is not read yet.
    m_bell->TakePlace();
    return database.LastSequence();
  });
}

void SettingsArea::Publish(std::int64_t position) {
  std::lock_guard lock(m_mutex);
  if (m_bell) {
    m_bell->Publish(position);
  }
}

void SettingsArea::Unfollow() {
  std::lock_guard lock(m_mutex);
  if (m_bell) {
    m_bell->LeavePlace();
  }
}

std::optional<std::vector<SettingsChange>> SettingsArea::ChangesAfter(std::int64_t position) {
  std::lock_guard lock(m_mutex);
  return Attempt(Access::READ, [&](SettingsDatabase& database) {
    std::optional changes = database.ChangesAfter(position);
    if (!changes->empty() && changes->front().sequence != position + 1) {
      changes.reset();
    }
    return changes;
  });
}

std::vector<SettingsChange> SettingsArea::ChangesAfterGap(std::int64_t position,
                                                          const std::vector<std::string>& keys) {
  std::lock_guard lock(m_mutex);
  return Attempt(Access::READ, [&](SettingsDatabase& database) {
    return database.ChangesAfterGap(position, keys);
  });
}

void SettingsArea::BeforeFork() {
  m_mutex.lock();
  m_cacheMutex.lock();
  // What a failed commit left behind is seen by the next connection.
  if (m_database) {
    m_database->Revoke();
  }
  m_database.reset();
}

void SettingsArea::AfterForkInParent() {
  m_cacheMutex.unlock();
  m_mutex.unlock();
}

void SettingsArea::AfterForkInChild() {
  // Its descriptor is the parent's too, and with it the locks.
  m_knownBell.store(nullptr);
  m_bell.reset();
  AfterForkInParent();
}

}  // namespace ondaro::host
