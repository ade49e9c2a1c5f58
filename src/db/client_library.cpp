#include "db/client_library.h"

#include "platform/client_library_name.h"

namespace kova {

namespace {

/// Looks operations up until one is missing.
struct Finder {
  const Library& source;
  const char* missing = nullptr;

  template <typename Operation>
  void find(const char* name, Operation*& operation) {
    if (missing != nullptr) return;
    operation = reinterpret_cast<Operation*>(source.symbol(name));
    if (operation == nullptr) missing = name;
  }
};

bool load(ClientLibrary& library) {
  Library source;
  return source.open(kClientLibraryName) && find_operations(source, library) == nullptr;
}

}  // namespace

const char* find_operations(const Library& source, ClientLibrary& library) {
  Finder finder{.source = source};
  finder.find("KOVA_CreateVantreoInstance", library.create_instance);
  finder.find("KOVA_DisableMessage", library.disable_message);
  finder.find("KOVA_StartVantreo", library.start);
  finder.find("KOVA_NewObject", library.new_object);
  finder.find("KOVA_Exec", library.exec);
  finder.find("KOVA_Status", library.status);
  finder.find("KOVA_FieldCount", library.field_count);
  finder.find("KOVA_FieldName", library.field_name);
  finder.find("KOVA_Next", library.next);
  finder.find("KOVA_DataByFno", library.data_by_fno);
  finder.find("KOVA_FreeObject", library.free_object);
  finder.find("KOVA_StopVantreo", library.stop);
  return finder.missing;
}

const ClientLibrary* load_client_library() {
  static constinit ClientLibrary library{};
  static constinit bool loaded = false;
  if (!loaded) loaded = load(library);
  return loaded ? &library : nullptr;
}

}  // namespace kova
