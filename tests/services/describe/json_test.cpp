#include "services/describe/json.h"

#include <gtest/gtest.h>

#include "tests/services/describe/described.h"

namespace describe {

TEST(Json, HasWhatTheDescriptionHas) {
  EXPECT_EQ(jsonOf(described("fields = [{ name = \"a\", field = \"u32:1\", min = 1, values = { on = 1, off = "
                             "0 }, secret = true }]\n"
                             "topics = [{ name = \"t\", number = 300 }]\n"
                             "[service]\nname = \"svc\"\nid = 9\ntitle = \"A \\\"title\\\"\\n\"\n"
                             "[[objects]]\nname = \"o\"\nhandler = 0\nkey = \"a\"\nstore = \"s\"\nundo = "
                             "true\nfields = [\"a\"]\n"
                             "commands = [\"getobj\", { name = \"go\", code = 7, right = \"none\", takes = "
                             "[\"a\"], errors = [\"busy\"] }]\n")),
            "{\"name\":\"svc\",\"id\":9,\"title\":\"A \\\"title\\\"\\u000a\","
            "\"fields\":[{\"name\":\"a\",\"type\":\"u32\",\"id\":134217729,\"field\":\"u32:1\",\"min\":1,"
            "\"values\":{\"off\":0,\"on\":1},\"secret\":true}],"
            "\"objects\":[{\"name\":\"o\",\"handler\":0,\"key\":\"a\",\"store\":\"s\",\"undo\":true,"
            "\"fields\":[\"a\"],"
            "\"commands\":[{\"name\":\"getobj\",\"code\":16646146,\"right\":\"read\"},"
            "{\"name\":\"go\",\"code\":7,\"right\":\"none\",\"takes\":[\"a\"],\"errors\":[\"busy\"]}]}],"
            "\"topics\":[{\"name\":\"t\",\"number\":300}]}\n");
}

TEST(Json, NothingIsLittle) { EXPECT_EQ(jsonOf(described("")), "{\"name\":\"svc\"}\n"); }

}  // namespace describe
