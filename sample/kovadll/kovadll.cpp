#include "kovadll/kovadll.h"

#include <cstdint>
#include <exception>
#include <memory>

#include "kovadll/connection.h"
#include "kovadll/statement_object.h"
#include "platform/socket.h"

namespace {

using kova::sample::Connection;
using kova::sample::StatementObject;

/// What a connection handle points to; the statement objects share the connection.
struct ConnectionHandle {
  std::shared_ptr<Connection> connection;
};

// Nothing releases an instance, so all of them are the same one.
struct Instance {
  kova::SocketLayer sockets;
};

Instance& the_instance() {
  static Instance instance;
  return instance;
}

StatementObject* object_of(void* object) {
  return static_cast<StatementObject*>(object);
}

}  // namespace

void* KOVA_CreateVantreoInstance() {
  Instance& instance = the_instance();
  return instance.sockets.ready() ? &instance : nullptr;
}

int KOVA_DisableMessage(void* instance) {
  return instance != nullptr ? 1 : 0;
}

void* KOVA_StartVantreo(void* instance, int /*options*/, const char* server, const char* port) {
  if (instance == nullptr || server == nullptr || port == nullptr) return nullptr;
  try {
    return new ConnectionHandle{std::make_shared<Connection>(server, port)};
  } catch (const std::exception&) {
    return nullptr;
  }
}

void* KOVA_NewObject(void* connection) {
  if (connection == nullptr) return nullptr;
  return new StatementObject(static_cast<ConnectionHandle*>(connection)->connection);
}

std::int64_t KOVA_Exec(void* object, const char* statement) {
  if (object == nullptr || statement == nullptr) return 0;
  return object_of(object)->exec(statement) ? 1 : 0;
}

const char* KOVA_Status(void* object) {
  return object != nullptr ? object_of(object)->status() : nullptr;
}

int KOVA_FieldCount(void* object) {
  return object != nullptr ? object_of(object)->field_count() : 0;
}

const char* KOVA_FieldName(void* object, int column) {
  return object != nullptr ? object_of(object)->field_name(column) : nullptr;
}

int KOVA_Next(void* object) {
  return object != nullptr && object_of(object)->next() ? 1 : 0;
}

const char* KOVA_DataByFno(void* object, int column) {
  return object != nullptr ? object_of(object)->cell(column) : nullptr;
}

int KOVA_FreeObject(void* object) {
  delete object_of(object);
  return 1;
}

int KOVA_StopVantreo(void* connection) {
  auto* handle = static_cast<ConnectionHandle*>(connection);
  if (handle != nullptr) handle->connection->close();
  delete handle;
  return 1;
}
