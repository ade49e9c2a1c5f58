#include "db/statement.h"

#include <cstdlib>
#include <cstring>

#include "base/string_scan.h"
#include "base/text.h"
#include "db/client_library.h"
#include "db/out_buf.h"
#include "db/result_json.h"

namespace kova {

void StatementResult::release() {
  std::free(text);
  text = nullptr;
  rowCount = 0;
  textLength = 0;
  truncated = false;
  std::memset(error, 0, sizeof error);
}

void StatementResult::adopt(char* json, std::size_t length, std::uint32_t rows) {
  release();
  text = json;
  textLength = static_cast<std::uint32_t>(length);
  rowCount = rows;
}

bool execute_statement(DbSession& session, const char* sql, std::uint32_t max_rows,
                       StatementResult& result) {
  result.release();
  const std::size_t length = sql != nullptr ? std::strlen(sql) : 0;
  if (length == 0 || length > kStatementLimit || max_rows == 0 || max_rows > kMaxRowsLimit) {
    return refuse(result.error, "invalid database execution bounds");
  }
  if (!ensure_session(session)) {
    return refuse(result.error, "authenticated Vantreo profile is unavailable");
  }
  const ClientLibrary& library = *session.library;
  if (library.exec(session.statement_object, sql) <= 0) {
    const char* const status = library.status(session.statement_object);
    const bool has_message = status != nullptr && *status != '\0';
    return refuse(result.error, has_message ? cut_text(status, kStatementErrorCapacity - 1)
                                            : "database statement failed");
  }
  OutBuf out;
  if (!compose_result_json(library, session.statement_object, max_rows, out, result.rowCount,
                           result.error)) {
    result.rowCount = 0;
    return false;
  }
  result.textLength = out.length();
  result.text = out.release();
  result.truncated = result.rowCount == max_rows;
  return true;
}

}  // namespace kova
