// Master key-value table: string settings in the "master" table through query bundles.
// Any thread; each call is one or two plmsvc_db_process calls (a set is not atomic as a whole).
#pragma once

#include <pelio/platform/Bundle.h>
#include <memory>
#include <string>

// 0 on success, -1 or the failing step's code otherwise. A null key or value is -1.
int master_set_string(const char* key, const char* value);
// 0 when the query ran: *value is a newly allocated string (free() it) or null when absent.
int master_get_string(const char* key, char** value);
// 0 when the query ran, with *present 1 or 0.
int key_is_present_in_db(const char* where, const char* table, int* present);
// Runs a prepared request; -1 when "record0" is "FAILURE", 0 otherwise.
int insert_into_db(pelio::platform::Bundle* request);
// A new request bundle from alternating keys and values; null for an odd or empty list.
std::unique_ptr<pelio::platform::Bundle> get_query_bundle(const char* const* keyValues, int size);

// Convenience for C++ callers: the value, or empty when absent or on failure (ok tells which).
std::string master_get_value(const std::string& key, bool* ok = nullptr);
