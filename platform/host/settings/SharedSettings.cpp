#include "SharedSettings.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "SignalGuard.h"

namespace ondaro::host {
namespace {

using Kind = SettingsError::Kind;

std::string Timestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  gmtime_r(&now, &parts);
  char text[sizeof "yyyymmddThhmmssZ"] = "";
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

std::pair<dev_t, ino_t> FileAt(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return {status.st_dev, status.st_ino};
}

/// A look that fails tells nothing.
bool MayBeCurrent(SettingsDatabase& database) noexcept {
  try {
    return database.IsCurrent();
  } catch (const std::exception&) {
    return true;
  }
}

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

/// Does the operation on an open database, and again where a new connection or database helps.
template <typename Operation>
auto SharedSettings::Attempt(Operation operation) {
  constexpr int ATTEMPTS = 4;
  SettingsDeadline::Begin();
  if (!m_mutex.LockUntil(SettingsDeadline::End())) {
    throw SettingsError(Kind::BUSY, m_directory + ": other threads keep it");
  }
  const auto unlock = [](SettingsMutex* mutex) { mutex->Unlock(); };
  const std::unique_ptr<SettingsMutex, decltype(unlock)> locked(&m_mutex, unlock);
  bool isSuspected = false;
  for (int attempt = 1;; ++attempt) {
    try {
      Open();
      return operation(*m_database);
    } catch (const SettingsError& error) {
      const bool hasFailed = error.GetKind() == Kind::FAILED;
      if (error.GetKind() == Kind::BUSY ||
          (hasFailed && m_database != nullptr && !m_database->Revoke())) {
        throw;
      }
      m_database.reset();
      if (error.GetKind() == Kind::REPLACED) {
        Renew();
        LogSettingsError(std::string(error.what()) + "; opened anew");
      }
      // A read that failed once can look like damage, so that is looked at twice.
      if (error.GetKind() == Kind::DAMAGED && isSuspected) {
        SetAside();
      }
      isSuspected = error.GetKind() == Kind::DAMAGED && !isSuspected;
      if (hasFailed || attempt == ATTEMPTS) {
        throw;
      }
    }
  }
}

void SharedSettings::Open() {
  if (m_database != nullptr && m_database->IsAlone()) {
    m_database.reset();
  }
  if (m_database != nullptr && Clock::now() < m_lookAgain) {
    return;
  }
  constexpr std::chrono::milliseconds EVERY{250};
  if (m_database == nullptr) {
    OpenDatabase();
  } else if (!m_database->IsCurrent()) {
    throw SettingsError(Kind::REPLACED, m_path + " is another file than before");
  } else if (!m_bell->IsAtPath()) {
    OpenBell();
    m_bell->Ring();
  }
  m_lookAgain = Clock::now() + EVERY;
  std::lock_guard lock(m_cacheMutex);
  m_mustAsk = m_lookAgain;
}

void SharedSettings::OpenBell() {
  auto bell = std::make_unique<const SettingsBell>(BellPath());
  std::lock_guard lock(m_cacheMutex);
  m_bell = std::move(bell);
  ++m_generation;
}

void SharedSettings::OpenDatabase() {
  const SignalGuard guard({SIGXFSZ});
  const StandardStreamsHeld held;
  m_directory = m_directory.empty() ? m_findDirectory() : m_directory;
  MakeDirectory(m_directory);
  OpenBell();
  m_path = std::filesystem::canonical(m_directory).string() + "/settings.db";
  for (const char* suffix : {"-shm", "-wal", ""}) {
    const Descriptor file(OpenStateFile(m_path + suffix, O_PATH,
                                        *suffix == '\0' ? IfMissing::MAKE : IfMissing::FAIL));
  }
  const FileId before = std::exchange(m_file, FileAt(m_path));
  m_databases += before != m_file ? 1 : 0;
  m_database = std::make_unique<SettingsDatabase>(m_path);
  m_wasOpen = true;
}

/// What was put in the place of the file that was in use becomes a file of its own, which nobody
/// takes for that one. Not twice: neither when it has come as another file, nor when another
/// process was quicker; then the file that was found is not at the path any more.
void SharedSettings::Renew() {
  const SettingsBell::Turn turn(*m_bell);
  if (FileAt(m_path) != m_file) {
    return;
  }
  try {
    m_database = std::make_unique<SettingsDatabase>(m_path);
    ++m_databases;
    // There was no log of another file, or it has gone.
    const std::lock_guard lock(m_cacheMutex);
    ++m_generation;
    return;
  } catch (const SettingsError& error) {
    if (error.GetKind() != Kind::REPLACED) {
      return;  // the next attempt meets it as well
    }
  }
  const std::string copy = m_path + ".new";
  std::remove(copy.c_str());
  const Descriptor from(OpenStateFile(m_path, O_RDONLY, IfMissing::FAIL));
  const Descriptor to(OpenStateFile(copy, O_WRONLY, IfMissing::MAKE));
  constexpr std::size_t MOST = 1 << 30;
  ssize_t size = 0;
  while ((size = sendfile(to.Number(), from.Number(), nullptr, MOST)) > 0) {
  }
  if (size < 0 || fsync(to.Number()) != 0) {
    ThrowErrno(copy);
  }
  // Nothing of what was in use lives on beside the new file.
  for (const char* suffix : {"-wal", "-shm"}) {
    if (std::remove((m_path + suffix).c_str()) != 0 && errno != ENOENT) {
      ThrowErrno(m_path + suffix);
    }
  }
  if (std::rename(copy.c_str(), m_path.c_str()) != 0) {
    ThrowErrno(m_path);
  }
  m_bell->Ring();
}

/// Unless another process has done so already: the file is not the one found then.
void SharedSettings::SetAside() {
  const SettingsBell::Turn turn(*m_bell);
  if (FileAt(m_path) != m_file) {
    return;
  }
  const std::string base = m_path + ".damaged-" + Timestamp();
  std::string name = base;
  for (int n = 2; std::filesystem::exists(name); ++n) {
    name = base + "-" + std::to_string(n);
  }
  for (const std::string suffix : {"-wal", "-shm", ""}) {
    if (std::rename((m_path + suffix).c_str(), (name + suffix).c_str()) != 0 && errno != ENOENT) {
      ThrowErrno(m_path + suffix);
    }
  }
  m_bell->Ring();
  LogSettingsError(m_path + " is damaged; it is kept as " + name + ", and a new one begun");
}

const SharedSettings::Value* SharedSettings::Remembered(const std::string& key,
                                                        const SettingsBell::Sight& sight) {
  if (sight != m_sight || Clock::now() >= m_mustAsk) {
    return nullptr;
  }
  const auto found = m_cache.find(key);
  const bool isKnown = found != m_cache.end() && found->second.generation == m_generation;
  return isKnown ? &found->second.value : nullptr;
}

void SharedSettings::Remember(const std::string& key, const Value& value,
                              const SettingsBell::Sight& sight) {
  constexpr std::size_t MOST = 16 << 20;
  constexpr std::size_t OF_AN_ENTRY = 128;
  const std::string* const text = value ? std::get_if<std::string>(&*value) : nullptr;
  const std::size_t size = key.size() + OF_AN_ENTRY + (text != nullptr ? text->size() : 0);
  std::lock_guard lock(m_cacheMutex);
  if (size > MOST) {
    return;
  }
  if (sight != m_sight) {
    m_sight = sight;
    ++m_generation;
  }
  // What was remembered of the key before is counted until then, too.
  m_cacheSize += size;
  if (m_cacheSize > MOST) {
    m_cache.clear();
    m_cacheSize = size;
  }
  m_cache[key] = {value, m_generation};
}

SharedSettings::Value SharedSettings::Query(const std::string& key,
                                            const SettingsBell::Sight& before) {
  return Attempt([&](SettingsDatabase& database) {
    // A commit after that look at the bell changes it, so what is remembered ends with it.
    const bool isSettled = m_bell->IsSettled(before);
    Value value = database.Get(key);
    if (isSettled) {
      Remember(key, value, before);
    }
    return value;
  });
}

void SharedSettings::Write(const std::string& key, const SettingsValue& value) {
  rlimit fileSize{};
  std::optional<SignalGuard> guard;
  if (getrlimit(RLIMIT_FSIZE, &fileSize) != 0 || fileSize.rlim_cur != RLIM_INFINITY) {
    guard.emplace(std::initializer_list<int>{SIGXFSZ});
  }
  Attempt([&](SettingsDatabase& database) {
    {
      const SettingsBell::Turn turn(*m_bell);
      SettingsDatabase::Write write(database, key, value);
      m_bell->Mark();
      write.Commit();
      m_bell->Ring();
    }
    if (!MayBeCurrent(database)) {
      throw SettingsError(Kind::REPLACED, m_path + " is another file than before");
    }
  });
}

SharedSettings::Position SharedSettings::Last() {
  return Attempt([&](SettingsDatabase& database) {
    return Position{m_databases, database.LastNumber()};
  });
}

bool SharedSettings::ChangesAfter(Position& position, const SettingsDatabase::Wanted& isWanted,
                                  const std::function<std::vector<std::string>()>& keys,
                                  Changes& changes) {
  return Attempt([&](SettingsDatabase& database) {
    const std::int64_t from = position.database == m_databases ? position.number : -1;
    std::optional<SettingsDatabase::Batch> batch;
    if (from >= 0) {
      batch = database.ChangesAfter(from, isWanted);
    }
    if (!batch) {
      batch = database.LastChanges(from, keys());
    }
    position = {m_databases, batch->upTo};
    changes = std::move(batch->changes);
    return batch->hasMore;
  });
}

void SharedSettings::Close() noexcept {
  SettingsDeadline::Begin();
  try {
    if (m_wasOpen) {
      Attempt([](SettingsDatabase& database) {
        if (database.IsCurrent()) {
          database.FoldWhenClosed();
        }
      });
    }
  } catch (const std::exception& error) {
    LogSettingsError(std::string("at the end: ") + error.what());
  }
  // Other threads may still be in their calls, or begin one.
  if (m_mutex.LockUntil(SettingsDeadline::End())) {
    m_wasOpen = false;
    m_database.reset();
    m_mutex.Unlock();
  }
}

void SharedSettings::BeforeFork() {
  m_mutex.LockUntil(Clock::time_point::max());
  m_cacheMutex.lock();
  // What a failed commit left behind is seen by the next connection.
  if (m_database != nullptr) {
    m_database->Revoke();
  }
  m_database.reset();
}

void SharedSettings::AfterForkInParent() {
  m_cacheMutex.unlock();
  m_mutex.Unlock();
}

void SharedSettings::AfterForkInChild() {
  m_bell.reset();
  ++m_generation;
  m_wasOpen = false;
  m_cacheMutex.unlock();
  m_mutex.Renew();
}

}  // namespace ondaro::host
