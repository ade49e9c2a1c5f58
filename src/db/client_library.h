// The client library's operations, found at run time.
#pragma once

#include "db/kova_api.h"
#include "platform/library.h"

namespace kova {

struct ClientLibrary {
  KOVA_CreateVantreoInstance_t* create_instance;
  KOVA_DisableMessage_t* disable_message;
  KOVA_StartVantreo_t* start;
  KOVA_NewObject_t* new_object;
  KOVA_Exec_t* exec;
  KOVA_Status_t* status;
  KOVA_FieldCount_t* field_count;
  KOVA_FieldName_t* field_name;
  KOVA_Next_t* next;
  KOVA_DataByFno_t* data_by_fno;
  KOVA_FreeObject_t* free_object;
  KOVA_StopVantreo_t* stop;
};

/// Finds the twelve operations in a loaded library. Returns null, or the name of the first one that
/// is missing.
[[nodiscard]] const char* find_operations(const Library& source, ClientLibrary& library);

/// The library, loaded at the first call; null when it or one of its operations is missing (the
/// next call looks again).
[[nodiscard]] const ClientLibrary* load_client_library();

}  // namespace kova
