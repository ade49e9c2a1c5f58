// The twelve operations as this library defines them.
#pragma once

#include "db/kova_api.h"

extern "C" {
KOVA_CreateVantreoInstance_t KOVA_CreateVantreoInstance;
KOVA_DisableMessage_t KOVA_DisableMessage;
KOVA_StartVantreo_t KOVA_StartVantreo;
KOVA_NewObject_t KOVA_NewObject;
KOVA_Exec_t KOVA_Exec;
KOVA_Status_t KOVA_Status;
KOVA_FieldCount_t KOVA_FieldCount;
KOVA_FieldName_t KOVA_FieldName;
KOVA_Next_t KOVA_Next;
KOVA_DataByFno_t KOVA_DataByFno;
KOVA_FreeObject_t KOVA_FreeObject;
KOVA_StopVantreo_t KOVA_StopVantreo;
}
