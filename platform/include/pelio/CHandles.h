// Owning handles for the C libraries the project calls: one mechanism, std::unique_ptr with a
// deleter that calls the library's own release function.
//
//   pelio::CHandle<T, release>   owns a T* and calls release(p) once when it ends (never on null).
//   the aliases below            the handles the code uses, one section per library.
//
// Each library's section is compiled in when that library's header is on the including target's
// include path (GLib and JSON-GLib come through pkg-config), so a target pays only for the
// libraries it builds against and needs no link dependency for this header.
//
// Threads: a handle is an ordinary object; it follows the thread rules of what it holds.
// Ownership: the handle owns exactly one reference (or allocation); release() gives it back.
// Errors: release functions that report a failure (sqlite3_close_v2, fclose ...) are not checked
// here; code that must react to such a failure releases the pointer and calls the function itself.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace pelio {

// Calls Fn on a non-null pointer.
template <auto Fn>
struct CFree {
    template <class T>
    void operator()(T* p) const noexcept {
        if (p != nullptr)
            Fn(p);
    }
};

template <class T, auto Fn>
using CHandle = std::unique_ptr<T, CFree<Fn>>;

// malloc / calloc / realloc memory.
template <class T>
using MallocPtr = CHandle<T, ::free>;
using FilePtr = CHandle<FILE, ::fclose>;
using DirPtr = CHandle<DIR, ::closedir>;

}  // namespace pelio

#if __has_include(<sqlite3.h>)
#include <sqlite3.h>
namespace pelio {
using SqliteDb = CHandle<sqlite3, sqlite3_close_v2>;
using SqliteStmt = CHandle<sqlite3_stmt, sqlite3_finalize>;
// Text SQLite allocated (error messages of sqlite3_exec, sqlite3_mprintf).
using SqliteText = CHandle<char, sqlite3_free>;
}  // namespace pelio
#endif

#if __has_include(<curl/curl.h>)
#include <curl/curl.h>
namespace pelio {
using CurlEasy = CHandle<CURL, curl_easy_cleanup>;
using CurlMulti = CHandle<CURLM, curl_multi_cleanup>;
using CurlList = CHandle<curl_slist, curl_slist_free_all>;
}  // namespace pelio
#endif

#if __has_include(<zlib.h>)
#include <zlib.h>
namespace pelio {
// A z_stream lives on the stack; these guards end the stream (not the memory) on every way out.
using DeflateGuard = CHandle<z_stream, deflateEnd>;
using InflateGuard = CHandle<z_stream, inflateEnd>;
}  // namespace pelio
#endif

#if __has_include(<openssl/ssl.h>)
#include <openssl/evp.h>
#include <openssl/ssl.h>
namespace pelio {
using EvpMdCtx = CHandle<EVP_MD_CTX, EVP_MD_CTX_free>;
using SslCtx = CHandle<SSL_CTX, SSL_CTX_free>;
using Ssl = CHandle<SSL, SSL_free>;
}  // namespace pelio
#endif

#if __has_include(<glib-object.h>)
#include <glib-object.h>
namespace pelio {
// One reference of any GObject (JsonParser, GDesktopAppInfo, GDBusConnection ...).
template <class T>
using GObjectPtr = CHandle<T, g_object_unref>;
using GCharPtr = CHandle<gchar, g_free>;
using GErrorPtr = CHandle<GError, g_error_free>;
using GKeyFilePtr = CHandle<GKeyFile, g_key_file_free>;
using GVariantPtr = CHandle<GVariant, g_variant_unref>;
using GHashTablePtr = CHandle<GHashTable, g_hash_table_unref>;
using GAsyncQueuePtr = CHandle<GAsyncQueue, g_async_queue_unref>;
}  // namespace pelio
#endif

#if __has_include(<json-glib/json-glib.h>)
#include <json-glib/json-glib.h>
namespace pelio {
using JsonNodePtr = CHandle<JsonNode, json_node_unref>;
using JsonObjectPtr = CHandle<JsonObject, json_object_unref>;
using JsonArrayPtr = CHandle<JsonArray, json_array_unref>;
}  // namespace pelio
#endif
