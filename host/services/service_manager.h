// host::ServiceManager: the reference host's app_core::facade::IServiceManager.
// Each service key has one settings record with a revision number, kept in an
// embedded SQLite database; a write carrying a stale revision is refused with
// kSettingsRevisionChanged, which is what lets several writers (threads here,
// or other processes on the same file) share a record without lost updates.
//
// Records cross the interface as objects with a serialisation id. Their bytes
// come from a codec registered for that id or, failing that, from the
// locator's IBinarySerializer with the descriptor that IMetaInfoProvider
// knows for the id (see UseBinarySerializer). Tests can inject failures and
// revision conflicts and read call counters.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "host/services/host_object.h"
#include "host/storage/sqlite_db.h"
#include "tov_utils/interfaces/iservice_manager.h"
#include "zel/iservice_locator.h"
#include "zel/rtl/objclient.h"

namespace host {

// Bytes of one record type.
class ISettingsCodec {
 public:
  virtual ~ISettingsCodec() = default;
  virtual zel::result_t Encode(const void* object, std::vector<std::uint8_t>& bytes) = 0;
  // Fills an existing object of the type from `bytes`.
  virtual zel::result_t Decode(std::span<const std::uint8_t> bytes, void* object) = 0;
};

// The codec of a trivially copyable record: its object bytes.
template <class T>
class TrivialSettingsCodec final : public ISettingsCodec {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  zel::result_t Encode(const void* object, std::vector<std::uint8_t>& bytes) override {
    const auto* p = static_cast<const std::uint8_t*>(object);
    bytes.assign(p, p + sizeof(T));
    return zel::result::NoError;
  }
  zel::result_t Decode(std::span<const std::uint8_t> bytes, void* object) override {
    if (bytes.size() != sizeof(T)) return zel::result::InvalidSize;
    std::memcpy(object, bytes.data(), sizeof(T));
    return zel::result::NoError;
  }
};

// The host's binary serialiser as a codec: the record's descriptor is looked
// up by its id through IMetaInfoProvider, the bytes are made by
// IBinarySerializer (its buffer comes from the locator's allocator, or
// malloc when there is none).
class BinarySerializerCodec final : public ISettingsCodec {
 public:
  BinarySerializerCodec(zel::IServiceLocator* locator, std::uint32_t serId) : m_locator(locator), m_serId(serId) {}
  zel::result_t Encode(const void* object, std::vector<std::uint8_t>& bytes) override;
  zel::result_t Decode(std::span<const std::uint8_t> bytes, void* object) override;

 private:
  zel::RefPtr<zel::IServiceLocator> m_locator;
  std::uint32_t m_serId;
};

class ServiceManager final : public OwnedObject<ServiceManager, app_core::facade::IServiceManager> {
 public:
  ServiceManager() = default;
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  ~ServiceManager();

  // Opens or creates the store at `path` (":memory:" for a private one).
  zel::result_t Open(const std::string& path);
  void Close();

  void RegisterCodec(std::uint32_t serId, std::shared_ptr<ISettingsCodec> codec);
  // Records without a codec of their own go through the binary serialiser
  // of `locator` (a reference is kept).
  void UseBinarySerializer(zel::IServiceLocator* locator);
  template <class T>
  void RegisterTrivialCodec(std::uint32_t serId) {
    RegisterCodec(serId, std::make_shared<TrivialSettingsCodec<T>>());
  }

  zel::result_t GetServiceSettings(std::uint32_t serviceKey, app_core::facade::SettingsHolder* settings) override;
  zel::result_t SetServiceSettings(std::uint32_t serviceKey, std::uint32_t sync,
                                   const app_core::facade::SettingsHolder* settings) override;
  zel::result_t GetServiceSettingsRevision(std::uint32_t serviceKey, std::uint32_t* revision) override;
  zel::result_t GetServiceSettings2(std::uint32_t serviceKey, app_core::facade::SettingsHolder* settings,
                                    std::uint32_t* revision) override;
  zel::result_t HasServiceSettings(std::uint32_t serviceKey) override;
  // `sync` is accepted either way: this host commits every write before it
  // returns, and FlushSettings makes the commits durable.
  zel::result_t UpdateServiceSettings2(std::uint32_t serviceKey, std::uint32_t sync,
                                       const app_core::facade::SettingsHolder* settings,
                                       std::uint32_t revision) override;
  zel::result_t RemoveServiceSettings(std::uint32_t serviceKey) override;
  zel::result_t FlushSettings() override;

  // ---- fault injection (one-shot unless said otherwise) -----------------------------
  void FailNextRead(zel::result_t code);   // GetServiceSettings / GetServiceSettings2
  void FailNextWrite(zel::result_t code);  // SetServiceSettings / UpdateServiceSettings2
  void FailNextFlush(zel::result_t code);
  // The next `count` conditional writes are refused as stale, storing nothing.
  void ForceRevisionConflicts(std::uint32_t count);

  // ---- observations ------------------------------------------------------------------
  // Calls of GetServiceSettings2, UpdateServiceSettings2 and FlushSettings,
  // failed ones too.
  std::uint64_t Reads() const { return m_reads.load(); }
  std::uint64_t Writes() const { return m_writes.load(); }
  std::uint64_t Flushes() const { return m_flushes.load(); }

 private:
  struct Stored {
    std::uint32_t serId = 0;
    std::uint32_t revision = 0;
    std::vector<std::uint8_t> bytes;
  };

  // All below run with m_mutex held.
  zel::result_t ReadLocked(std::uint32_t serviceKey, app_core::facade::SettingsHolder* settings,
                           std::uint32_t* revision);
  zel::result_t Load(std::uint32_t serviceKey, Stored& stored, bool& found);
  zel::result_t WriteLocked(std::uint32_t serviceKey, const app_core::facade::SettingsHolder* settings,
                            bool checkRevision, std::uint32_t revision);
  std::shared_ptr<ISettingsCodec> CodecFor(std::uint32_t serId);
  static bool TakeFault(zel::result_t& slot, zel::result_t& out);

  mutable std::mutex m_mutex;
  // Kept statements, by their place in Open's list.
  enum KeptStatement : std::size_t { kSelect, kUpsert, kDelete };
  storage::StoreDatabase m_db;
  std::map<std::uint32_t, std::shared_ptr<ISettingsCodec>> m_codecs;
  zel::RefPtr<zel::IServiceLocator> m_serializerLocator;

  zel::result_t m_failRead = 0;
  zel::result_t m_failWrite = 0;
  zel::result_t m_failFlush = 0;
  std::uint32_t m_forcedConflicts = 0;

  std::atomic<std::uint64_t> m_reads{0};
  std::atomic<std::uint64_t> m_writes{0};
  std::atomic<std::uint64_t> m_flushes{0};
};

}  // namespace host
