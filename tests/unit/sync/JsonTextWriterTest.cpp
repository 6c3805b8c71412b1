// The JSON text writer against JSON-GLib's serialisation of the same document: same text for
// escapes, nesting, booleans, integers and whole-number doubles; bytes that are not UTF-8 still
// give text a JSON reader accepts.

#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include "composer/JSONComposer.h"
#include "composer/JsonTextWriter.h"

TEST(JsonTextWriterTest, WritesWhatJsonGlibWritesAndStaysReadable) {
    const std::string tricky = "a\"b\\c/\n\r\t\b\f\x01\x7f \xc3\xa9 end";
    JsonTextWriter writer;
    writer.beginObject();
    writer.beginArray("docs");
    writer.beginObject();
    writer.add("name", tricky);
    writer.add("empty", "");
    writer.add("flag", true);
    writer.add("number", 42LL);
    writer.addDouble("timestamp", 1764000000123.0);
    writer.beginObject("meta");
    writer.add("off", false);
    writer.endObject();
    writer.endObject();
    writer.beginObject();
    writer.endObject();
    writer.endArray();
    writer.endObject();

    JsonObjectPtr doc(json_object_new());
    json_object_set_string_member(doc.get(), "name", tricky.c_str());
    json_object_set_string_member(doc.get(), "empty", "");
    json_object_set_boolean_member(doc.get(), "flag", TRUE);
    json_object_set_int_member(doc.get(), "number", 42);
    json_object_set_double_member(doc.get(), "timestamp", 1764000000123.0);
    JsonObjectPtr meta(json_object_new());
    json_object_set_boolean_member(meta.get(), "off", FALSE);
    json_object_set_object_member(doc.get(), "meta", meta.release());
    JsonArrayPtr docs(json_array_new());
    json_array_add_object_element(docs.get(), doc.release());
    json_array_add_object_element(docs.get(), json_object_new());
    JsonObjectPtr body(json_object_new());
    json_object_set_array_member(body.get(), "docs", docs.release());
    EXPECT_EQ(writer.take(), JSONComposer::jsonToString(body.get()));
    EXPECT_TRUE(writer.empty());

    writer.beginObject();
    writer.add("bad", std::string("x\xff\xfey"));
    writer.endObject();
    const std::string text = writer.take();
    g_autoptr(JsonParser) parser = json_parser_new();
    ASSERT_TRUE(json_parser_load_from_data(parser, text.c_str(), -1, nullptr)) << text;
    const char* bad =
        json_object_get_string_member(json_node_get_object(json_parser_get_root(parser)), "bad");
    EXPECT_EQ(std::string(bad), "x\xef\xbf\xbd\xef\xbf\xbdy");
}
