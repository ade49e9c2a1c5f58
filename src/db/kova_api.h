// The twelve operations of the engine's client library (kovadll.dll, libkovadll.so), which is
// loaded at run time. Texts are NUL-terminated; a text that the library returns stays its own and
// is valid until the next call on the same object. One thread uses an object at a time.
#pragma once

#include <cstdint>

extern "C" {

/// Makes the library's instance. Null is a failure; there is no call that releases it.
using KOVA_CreateVantreoInstance_t = void*();

/// Keeps the library from showing messages of its own. Called once on a new instance.
using KOVA_DisableMessage_t = int(void* instance);

/// Connects to the engine. Passed the instance, the options word 0, the host and the port as
/// texts. Returns the connection; null is a failure.
using KOVA_StartVantreo_t = void*(void* instance, int options, const char* server,
                                  const char* port);

/// Makes a statement object on a connection. Null is a failure.
using KOVA_NewObject_t = void*(void* connection);

/// Runs one statement. Greater than 0 is success, 0 and below are failures, over all 64 bits.
using KOVA_Exec_t = std::int64_t(void* object, const char* statement);

/// The status text of the last statement: the error message after a failure. May be null.
using KOVA_Status_t = const char*(void* object);

/// The number of columns of the last statement's result; 0 when it has none.
using KOVA_FieldCount_t = int(void* object);

/// The name of a column, counted from 1. May be null.
using KOVA_FieldName_t = const char*(void* object, int column);

/// Makes the next row current. Zero at the end of the result.
using KOVA_Next_t = int(void* object);

/// The current row's cell in a column counted from 1, as text. May be null.
using KOVA_DataByFno_t = const char*(void* object, int column);

/// Releases a statement object. The result is ignored.
using KOVA_FreeObject_t = int(void* object);

/// Closes a connection. The result is ignored.
using KOVA_StopVantreo_t = int(void* connection);

}  // extern "C"
