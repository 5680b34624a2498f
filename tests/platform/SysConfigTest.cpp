#include <map>
#include <optional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "SysConfig.h"
#include "TestSupport.h"

namespace {

using pmtest::LogCapture;
using pmtest::ScopedEnv;
using pmtest::TempDir;

// Every case runs against a folder that stands in for the recorder's file system.
class RecorderRootTest {
protected:
    TempDir root;
    ScopedEnv rootEnv{"RECORDER_ROOT", root.Path()};
    ScopedEnv noSystemConfig{"SYSTEM_CONFIG", std::nullopt};
};

struct DocumentCase {
    const char* name;
    std::map<std::string, std::string> files;  // below the root
    std::optional<std::string> envValue;       // TEST_DOC=...
    int result;
    int k;               // the document's "k" on success
    const char* logged;  // on failure: a text of the log record
};

void PrintTo(const DocumentCase& c, std::ostream* os) {
    *os << c.name;
}

class JsonByEnvTest : public RecorderRootTest, public testing::TestWithParam<DocumentCase> {};

TEST_P(JsonByEnvTest, LoadsDocument) {
    const DocumentCase& c = GetParam();
    for (const auto& [path, content] : c.files) {
        root.Write(path, content);
    }
    ScopedEnv docEnv("TEST_DOC", c.envValue);
    LogCapture log;
    Json::Value doc("untouched");
    ASSERT_EQ(Q7R_GetJsonByEnv("TEST_DOC", doc), c.result);
    if (c.result == 0) {
        EXPECT_EQ(doc["k"].asInt(), c.k);
        return;
    }
    EXPECT_EQ(doc, Json::Value("untouched")) << "a failed load leaves the document alone";
    std::vector<Common::LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_NE(records[0].text.find(root.Path()), std::string::npos) << records[0].text;
    EXPECT_NE(records[0].text.find(c.logged), std::string::npos) << records[0].text;
}

const std::string kDefault = "usr/local/cfg/TEST_DOC";

INSTANTIATE_TEST_SUITE_P(
    Table, JsonByEnvTest,
    testing::Values(
        DocumentCase{"DefaultFolder", {{kDefault, R"({"k": 1})"}}, std::nullopt, 0, 1, ""},
        DocumentCase{"EnvironmentVariable",
                     {{"data/doc.json", R"({"k": 2})"}},
                     std::string("/data/doc.json"),
                     0,
                     2,
                     ""},
        DocumentCase{"EnvironmentVariableWins",
                     {{kDefault, R"({"k": 1})"}, {"data/doc.json", R"({"k": 2})"}},
                     std::string("/data/doc.json"),
                     0,
                     2,
                     ""},
        DocumentCase{
            "EmptyVariableMeansDefault", {{kDefault, R"({"k": 1})"}}, std::string(""), 0, 1, ""},
        DocumentCase{"Missing", {}, std::nullopt, -1, 0, "/usr/local/cfg/TEST_DOC"},
        DocumentCase{"MissingWhereVariablePoints",
                     {{kDefault, R"({"k": 1})"}},
                     std::string("/data/doc.json"),
                     -1,
                     0,
                     "/data/doc.json"},
        // jsoncpp's messages name the place: "* Line 1, Column 9 ..."
        DocumentCase{"Broken", {{kDefault, R"({"k": 1,)"}}, std::nullopt, -1, 0, "Line 1, Column"},
        DocumentCase{"TrailingGarbage",
                     {{kDefault, R"({"k": 1} })"}},
                     std::nullopt,
                     -1,
                     0,
                     "Line 1, Column"},
        DocumentCase{"Empty", {{kDefault, ""}}, std::nullopt, -1, 0, "Line 1, Column"},
        DocumentCase{"NestedTooDeep",
                     {{kDefault, std::string(5000, '[') + std::string(5000, ']')}},
                     std::nullopt,
                     -1,
                     0,
                     "cannot parse"},
        DocumentCase{"Directory",
                     {{kDefault + "/inside", "{}"}},
                     std::nullopt,
                     -1,
                     0,
                     "not a regular file"}),
    [](const testing::TestParamInfo<DocumentCase>& info) { return std::string(info.param.name); });

TEST(JsonByEnv, WithoutRecorderRootPathsAreTakenAsGiven) {
    TempDir dir;
    ScopedEnv noRoot("RECORDER_ROOT", std::nullopt);
    ScopedEnv docEnv("TEST_DOC", dir.Write("doc.json", R"([1, 2, 3])"));
    Json::Value doc;
    ASSERT_EQ(Q7R_GetJsonByEnv("TEST_DOC", doc), 0);
    EXPECT_EQ(doc.size(), 3u);
}

TEST(JsonByEnv, RefusesMissingName) {
    Json::Value doc;
    EXPECT_EQ(Q7R_GetJsonByEnv(nullptr, doc), -1);
    EXPECT_EQ(Q7R_GetJsonByEnv("", doc), -1);
}

TEST(RecorderPath, PrefixesAbsolutePathsWithTheRoot) {
    struct Case {
        std::optional<std::string> root;
        std::string path;
        std::string expected;
    };
    const Case cases[] = {
        {std::string("/tmp/r"), "/usr/local/cfg/X", "/tmp/r/usr/local/cfg/X"},
        {std::string("/tmp/r//"), "/usr/local/cfg/X", "/tmp/r/usr/local/cfg/X"},
        {std::string("/tmp/r"), "relative/X", "relative/X"},
        {std::string(""), "/usr/local/cfg/X", "/usr/local/cfg/X"},
        {std::nullopt, "/usr/local/cfg/X", "/usr/local/cfg/X"},
        {std::string("/"), "/usr/local/cfg/X", "/usr/local/cfg/X"},
    };
    for (const Case& c : cases) {
        ScopedEnv env("RECORDER_ROOT", c.root);
        EXPECT_EQ(Common::RecorderPath(c.path), c.expected) << c.root.value_or("(unset)");
    }
}

class SystemConfigTest : public RecorderRootTest, public testing::Test {
protected:
    void WriteSystemConfig(const std::string& json) {
        root.Write("usr/local/cfg/SYSTEM_CONFIG", json);
    }
};

TEST_F(SystemConfigTest, DefaultsWhenMissing) {
    Json::Value systemConfig;
    EXPECT_EQ(Q7R_GetSpecInfo(systemConfig), -1);
    EXPECT_EQ(Q7R_GetProductType(), kDefaultProductType);
    EXPECT_EQ(Q7R_GetVichnNum(), static_cast<unsigned>(kDefaultViChnNum));
    EXPECT_EQ(Q7R_GetDigitalchnNum(), static_cast<unsigned>(kDefaultDigitalChnNum));
}

TEST_F(SystemConfigTest, ReadsValuesAndFollowsChanges) {
    WriteSystemConfig(R"({"PRODUCT_TYPE": 7, "VI_CHN_NUM": 8, "DIGITAL_CHN_NUM": 16})");
    Json::Value systemConfig;
    ASSERT_EQ(Q7R_GetSpecInfo(systemConfig), 0);
    EXPECT_EQ(systemConfig["PRODUCT_TYPE"].asInt(), 7);
    EXPECT_EQ(Q7R_GetProductType(), 7);
    EXPECT_EQ(Q7R_GetVichnNum(), 8u);
    EXPECT_EQ(Q7R_GetDigitalchnNum(), 16u);

    WriteSystemConfig(R"({"PRODUCT_TYPE": 3})");
    EXPECT_EQ(Q7R_GetProductType(), 3);
    EXPECT_EQ(Q7R_GetVichnNum(), static_cast<unsigned>(kDefaultViChnNum)) << "key now absent";
}

TEST_F(SystemConfigTest, DefaultsForValuesOfTheWrongKind) {
    const char* const documents[] = {
        R"({"PRODUCT_TYPE": "7", "VI_CHN_NUM": -2, "DIGITAL_CHN_NUM": 1.5})",
        R"({"PRODUCT_TYPE": null, "VI_CHN_NUM": 5000000000, "DIGITAL_CHN_NUM": [1]})",
        R"([{"PRODUCT_TYPE": 7}])",
        R"("SYSTEM_CONFIG")",
    };
    for (const char* document : documents) {
        WriteSystemConfig(document);
        EXPECT_EQ(Q7R_GetProductType(), kDefaultProductType) << document;
        EXPECT_EQ(Q7R_GetVichnNum(), static_cast<unsigned>(kDefaultViChnNum)) << document;
        EXPECT_EQ(Q7R_GetDigitalchnNum(), static_cast<unsigned>(kDefaultDigitalChnNum)) << document;
    }
}

}  // namespace
