#include "db/client_library.h"

#include "platform/client_library_name.h"
#include "platform/library.h"

namespace kova {

namespace {

template <typename Operation>
bool find(const Library& source, const char* name, Operation*& operation) {
  operation = reinterpret_cast<Operation*>(source.symbol(name));
  return operation != nullptr;
}

bool load(ClientLibrary& library) {
  Library source;
  return source.open(kClientLibraryName) &&
         find(source, "KOVA_CreateVantreoInstance", library.create_instance) &&
         find(source, "KOVA_DisableMessage", library.disable_message) &&
         find(source, "KOVA_StartVantreo", library.start) &&
         find(source, "KOVA_NewObject", library.new_object) &&
         find(source, "KOVA_Exec", library.exec) && find(source, "KOVA_Status", library.status) &&
         find(source, "KOVA_FieldCount", library.field_count) &&
         find(source, "KOVA_FieldName", library.field_name) &&
         find(source, "KOVA_Next", library.next) &&
         find(source, "KOVA_DataByFno", library.data_by_fno) &&
         find(source, "KOVA_FreeObject", library.free_object) &&
         find(source, "KOVA_StopVantreo", library.stop);
}

}  // namespace

const ClientLibrary* load_client_library() {
  static constinit ClientLibrary library{};
  static constinit bool loaded = false;
  if (!loaded) loaded = load(library);
  return loaded ? &library : nullptr;
}

}  // namespace kova
