// Query-bundle helpers and key names shared by every reader and writer of the local store.
#pragma once

#include <pelio/platform/Bundle.h>
#include <string>

namespace bundlekeys {
inline constexpr const char* OPERATION_KEY = "OPERATION_KEY";
inline constexpr const char* URI_TABLE_NAME = "URI_TABLE_NAME";
inline constexpr const char* COLUMN_COUNT = "COLUMN_COUNT";
inline constexpr const char* PROJECTION = "PROJECTION";
inline constexpr const char* WHERE = "WHERE";
inline constexpr const char* WHERE_ARGS = "WHERE_ARGS";
inline constexpr const char* RECORD0 = "record0";
inline constexpr const char* SUCCESS = "SUCCESS";
inline constexpr const char* FAILURE = "FAILURE";
inline constexpr const char* OP_CREATE = "CREATE";
inline constexpr const char* OP_INSERT = "INSERT";
inline constexpr const char* OP_SELECT = "SELECT";
inline constexpr const char* OP_UPDATE = "UPDATE";
inline constexpr const char* OP_DELETE = "DELETE";
inline constexpr const char* OP_DROP = "DROP";
}  // namespace bundlekeys

// The string under key, or "" when the bundle is null, the key empty or absent (logged).
std::string getValStr(const pelio::platform::Bundle* bundle, const std::string& key);
// "record" + n, "COL" + n.
std::string recordKey(int n);
std::string columnKey(int n);
