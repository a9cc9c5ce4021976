#include "host/services/service_manager.h"

#include <cstdlib>
#include <utility>

#include "host/services/fault_switchboard.h"
#include "zel/serialization/imeta_info.h"
#include "zel/serialization/iserializers.h"
#include "zel/util/anydescrptr.h"

namespace host {

namespace {

using app_core::facade::SettingsHolder;

// 0 means "nothing stored", so a wrapping revision skips it.
std::uint32_t NextRevision(std::uint32_t revision) noexcept { return revision == UINT32_MAX ? 1 : revision + 1; }

}  // namespace

ServiceManager::~ServiceManager() { Close(); }

zel::result_t ServiceManager::Open(const std::string& path) {
  std::lock_guard lock(m_mutex);
  return m_db.Open(path,
                   "CREATE TABLE IF NOT EXISTS service_settings ("
                   " service_key INTEGER PRIMARY KEY,"
                   " ser_id INTEGER NOT NULL,"
                   " revision INTEGER NOT NULL,"
                   " data BLOB NOT NULL)",
                   {
                       // kSelect
                       "SELECT ser_id, revision, data FROM service_settings WHERE service_key = ?1",
                       // kUpsert
                       "INSERT INTO service_settings (service_key, ser_id, revision, data) VALUES (?1, ?2, ?3, ?4)"
                       " ON CONFLICT(service_key) DO UPDATE SET"
                       " ser_id = excluded.ser_id, revision = excluded.revision, data = excluded.data",
                       // kDelete
                       "DELETE FROM service_settings WHERE service_key = ?1",
                   });
}

void ServiceManager::Close() {
  std::lock_guard lock(m_mutex);
  m_db.Close();
}

void ServiceManager::RegisterCodec(std::uint32_t serId, std::shared_ptr<ISettingsCodec> codec) {
  std::lock_guard lock(m_mutex);
  m_codecs[serId] = std::move(codec);
}

void ServiceManager::UseBinarySerializer(zel::IServiceLocator* locator) {
  std::lock_guard lock(m_mutex);
  m_serializerLocator = zel::RefPtr<zel::IServiceLocator>(locator);
}

std::shared_ptr<ISettingsCodec> ServiceManager::CodecFor(std::uint32_t serId) {
  auto it = m_codecs.find(serId);
  if (it != m_codecs.end()) return it->second;
  if (!m_serializerLocator) return nullptr;
  auto codec = std::make_shared<BinarySerializerCodec>(m_serializerLocator.Get(), serId);
  m_codecs.emplace(serId, codec);
  return codec;
}

namespace {

zel::result_t FindDescriptor(zel::IServiceLocator* locator, std::uint32_t serId,
                             const zel::TypeDescriptor** descriptor) {
  zel::RefPtr<zel::IMetaInfoProvider> meta;
  const zel::result_t r = zel::GetInterface(locator, meta.Ref());
  if (ZEL_FAILED(r)) return r;
  return meta->FindDescriptor(serId, descriptor);
}

}  // namespace

zel::result_t BinarySerializerCodec::Encode(const void* object, std::vector<std::uint8_t>& bytes) {
  const zel::TypeDescriptor* descriptor = nullptr;
  zel::result_t r = FindDescriptor(m_locator.Get(), m_serId, &descriptor);
  if (ZEL_FAILED(r)) return r;
  zel::RefPtr<zel::IBinarySerializer> serializer;
  r = zel::GetInterface(m_locator.Get(), serializer.Ref());
  if (ZEL_FAILED(r)) return r;
  zel::RefPtr<zel::IAllocator> allocator;
  zel::GetInterface(m_locator.Get(), allocator.Ref());  // none: malloc and free
  unsigned char* data = nullptr;
  std::uint32_t length = 0;
  // The serialiser only reads the record; the descriptor pointer is not owning.
  const zel::anydescrptr record(const_cast<void*>(object), descriptor);
  r = serializer->Serialize(record, allocator.Get(), &data, length, 0);
  if (ZEL_SUCCEEDED(r)) bytes.assign(data, data + length);
  if (data != nullptr) {
    if (allocator) allocator->Free(data);
    else std::free(data);
  }
  return ZEL_FAILED(r) ? r : zel::result::NoError;
}

zel::result_t BinarySerializerCodec::Decode(std::span<const std::uint8_t> bytes, void* object) {
  const zel::TypeDescriptor* descriptor = nullptr;
  zel::result_t r = FindDescriptor(m_locator.Get(), m_serId, &descriptor);
  if (ZEL_FAILED(r)) return r;
  zel::RefPtr<zel::IBinarySerializer> serializer;
  r = zel::GetInterface(m_locator.Get(), serializer.Ref());
  if (ZEL_FAILED(r)) return r;
  const zel::anydescrptr record(object, descriptor);
  const zel::byte_range_t blob{bytes.data(), bytes.data() + bytes.size()};
  std::uint32_t consumed = 0;
  r = serializer->Deserialize(blob, record, consumed, 0);
  return ZEL_FAILED(r) ? r : zel::result::NoError;
}

bool ServiceManager::TakeFault(zel::result_t& slot, zel::result_t& out) {
  if (slot == 0) return false;
  out = std::exchange(slot, 0);
  return true;
}

zel::result_t ServiceManager::Load(std::uint32_t serviceKey, Stored& stored, bool& found) {
  found = false;
  storage::Statement& select = m_db.Kept(kSelect);
  select.Reset();
  zel::result_t r = select.Bind(1, static_cast<std::int64_t>(serviceKey));
  if (ZEL_FAILED(r)) return r;
  if (select.Step(&r)) {
    found = true;
    stored.serId = static_cast<std::uint32_t>(select.ColumnInt(0));
    stored.revision = static_cast<std::uint32_t>(select.ColumnInt(1));
    const auto blob = select.ColumnBlob(2);
    stored.bytes.assign(blob.begin(), blob.end());
  }
  select.Reset();  // ends the read before any write of the same connection
  return r;
}

zel::result_t ServiceManager::ReadLocked(std::uint32_t serviceKey, SettingsHolder* settings,
                                         std::uint32_t* revision) {
  zel::result_t r = zel::result::NoError;
  if (TakeFault(m_failRead, r)) return r;
  if (settings == nullptr || settings->object == nullptr) return zel::result::InvalidArgument;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  Stored stored;
  bool found = false;
  r = Load(serviceKey, stored, found);
  if (ZEL_FAILED(r)) return r;
  if (!found) {
    if (revision != nullptr) *revision = 0;
    return zel::result::False;  // the caller's record keeps its defaults
  }
  if (stored.serId != settings->serId) return zel::result::WrongSettingsType;
  const auto codec = CodecFor(stored.serId);
  if (codec == nullptr) return zel::result::MetaInformationNotFound;
  r = codec->Decode(stored.bytes, settings->object);
  if (ZEL_FAILED(r)) return r;
  if (revision != nullptr) *revision = stored.revision;
  return zel::result::NoError;
}

zel::result_t ServiceManager::WriteLocked(std::uint32_t serviceKey, const SettingsHolder* settings,
                                          bool checkRevision, std::uint32_t revision) {
  zel::result_t r = zel::result::NoError;
  if (TakeFault(m_failWrite, r)) return r;
  if (checkRevision && m_forcedConflicts > 0) {
    --m_forcedConflicts;
    return app_core::facade::kSettingsRevisionChanged;
  }
  if (settings == nullptr || settings->object == nullptr) return zel::result::InvalidArgument;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  const auto codec = CodecFor(settings->serId);
  if (codec == nullptr) return zel::result::MetaInformationNotFound;
  std::vector<std::uint8_t> bytes;
  r = codec->Encode(settings->object, bytes);
  if (ZEL_FAILED(r)) return r;

  // The revision test and the write are one transaction, so another process
  // on the same file can't slip a write in between.
  return m_db.InTransaction([&]() -> zel::result_t {
    Stored stored;
    bool found = false;
    zel::result_t r = Load(serviceKey, stored, found);
    if (ZEL_FAILED(r)) return r;
    const std::uint32_t current = found ? stored.revision : 0;
    if (checkRevision && revision != current) return app_core::facade::kSettingsRevisionChanged;

    storage::Statement& upsert = m_db.Kept(kUpsert);
    upsert.Reset();
    r = upsert.Bind(1, static_cast<std::int64_t>(serviceKey));
    if (ZEL_SUCCEEDED(r)) r = upsert.Bind(2, static_cast<std::int64_t>(settings->serId));
    if (ZEL_SUCCEEDED(r)) r = upsert.Bind(3, static_cast<std::int64_t>(NextRevision(current)));
    if (ZEL_SUCCEEDED(r)) r = upsert.Bind(4, bytes);
    if (ZEL_SUCCEEDED(r)) r = upsert.Run();
    upsert.Reset();
    return r;
  });
}

zel::result_t ServiceManager::GetServiceSettings(std::uint32_t serviceKey, SettingsHolder* settings) {
  if (const zel::result_t fault = FaultAt(FaultPoint::SettingsGet)) return fault;
  std::lock_guard lock(m_mutex);
  return ReadLocked(serviceKey, settings, nullptr);
}

zel::result_t ServiceManager::SetServiceSettings(std::uint32_t serviceKey, std::uint32_t /*sync*/,
                                                 const SettingsHolder* settings) {
  if (const zel::result_t fault = FaultAt(FaultPoint::SettingsUpdate)) return fault;
  std::lock_guard lock(m_mutex);
  return WriteLocked(serviceKey, settings, false, 0);
}

zel::result_t ServiceManager::GetServiceSettingsRevision(std::uint32_t serviceKey, std::uint32_t* revision) {
  if (revision == nullptr) return zel::result::InvalidArgument;
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  Stored stored;
  bool found = false;
  const zel::result_t r = Load(serviceKey, stored, found);
  if (ZEL_FAILED(r)) return r;
  *revision = found ? stored.revision : 0;
  return found ? zel::result::NoError : zel::result::False;
}

zel::result_t ServiceManager::GetServiceSettings2(std::uint32_t serviceKey, SettingsHolder* settings,
                                                  std::uint32_t* revision) {
  if (const zel::result_t fault = FaultAt(FaultPoint::SettingsGet)) return fault;
  if (revision == nullptr) return zel::result::InvalidArgument;
  std::lock_guard lock(m_mutex);
  ++m_reads;
  return ReadLocked(serviceKey, settings, revision);
}

zel::result_t ServiceManager::HasServiceSettings(std::uint32_t serviceKey) {
  std::uint32_t revision = 0;
  return GetServiceSettingsRevision(serviceKey, &revision);
}

zel::result_t ServiceManager::UpdateServiceSettings2(std::uint32_t serviceKey, std::uint32_t /*sync*/,
                                                     const SettingsHolder* settings, std::uint32_t revision) {
  if (const zel::result_t fault = FaultAt(FaultPoint::SettingsUpdate)) return fault;
  std::lock_guard lock(m_mutex);
  ++m_writes;
  return WriteLocked(serviceKey, settings, true, revision);
}

zel::result_t ServiceManager::RemoveServiceSettings(std::uint32_t serviceKey) {
  std::lock_guard lock(m_mutex);
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  storage::Statement& remove = m_db.Kept(kDelete);
  remove.Reset();
  zel::result_t r = remove.Bind(1, static_cast<std::int64_t>(serviceKey));
  if (ZEL_SUCCEEDED(r)) r = remove.Run();
  remove.Reset();
  if (ZEL_FAILED(r)) return r;
  return sqlite3_changes(m_db.Db().Handle()) > 0 ? zel::result::NoError : zel::result::False;
}

zel::result_t ServiceManager::FlushSettings() {
  if (const zel::result_t fault = FaultAt(FaultPoint::SettingsFlush)) return fault;
  std::lock_guard lock(m_mutex);
  ++m_flushes;
  zel::result_t r = zel::result::NoError;
  if (TakeFault(m_failFlush, r)) return r;
  if (!m_db.IsOpen()) return zel::result::NotInitialized;
  return m_db.Db().Exec("PRAGMA wal_checkpoint(FULL)");
}

void ServiceManager::FailNextRead(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failRead = code;
}

void ServiceManager::FailNextWrite(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failWrite = code;
}

void ServiceManager::FailNextFlush(zel::result_t code) {
  std::lock_guard lock(m_mutex);
  m_failFlush = code;
}

void ServiceManager::ForceRevisionConflicts(std::uint32_t count) {
  std::lock_guard lock(m_mutex);
  m_forcedConflicts = count;
}

}  // namespace host
