// Configuration documents, SYSTEM_CONFIG and the language tables.
#include <stdio.h>
#include <string.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "GuiToolkit.h"
#include "SysConfig.h"
#include "TestSupport.h"

namespace {

using pmtest::LogCapture;
using pmtest::ScopedEnv;

// A folder stands in for the recorder's file system; the loaded language table is
// process-wide, so every test starts from a forgotten one.
class RecorderRoot : public testing::Test {
protected:
    void SetUp() override { GuiTKResetForTest(); }
    void TearDown() override { GuiTKResetForTest(); }
    // Writes a file below usr/local/cfg, or removes it when `content` is null.
    void Write(const std::string& path, const char* content) {
        if (content != nullptr) {
            root.Write("usr/local/cfg/" + path, content);
        } else {
            remove(root.File("usr/local/cfg/" + path).c_str());
        }
    }
    const char* Text(const char* id) { return GuiTKGetText(nullptr, nullptr, id); }

    pmtest::TempDir root;
    ScopedEnv rootEnv{"RECORDER_ROOT", root.Path()};
    ScopedEnv noSystemConfig{"SYSTEM_CONFIG", std::nullopt};
};

TEST_F(RecorderRoot, JsonDocumentsBelowTheRoot) {
    struct Case {
        const char* what;
        std::optional<std::string> env;  // TEST_DOC=...
        const char* content;             // of the default file
        int k;                           // the document's "k", or -1: refused, logging this
        const char* logged;
    };
    const std::string kDeep = std::string(5000, '[') + std::string(5000, ']');
    const Case cases[] = {
        {"default folder", std::nullopt, R"({"k": 1})", 1, ""},
        {"empty variable means default", "", R"({"k": 1})", 1, ""},
        {"variable wins", "/data/doc.json", R"({"k": 1})", 2, ""},
        {"missing", std::nullopt, nullptr, -1, "/usr/local/cfg/TEST_DOC"},
        {"broken", std::nullopt, R"({"k": 1,)", -1, "Line 1, Column"},
        {"nested too deep", std::nullopt, kDeep.c_str(), -1, "cannot parse"},
    };
    root.Write("data/doc.json", R"({"k": 2})");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Write("TEST_DOC", c.content);
        ScopedEnv docEnv("TEST_DOC", c.env);
        LogCapture log;
        Json::Value doc("untouched");
        ASSERT_EQ(Q7R_GetJsonByEnv("TEST_DOC", doc), c.k < 0 ? -1 : 0);
        if (c.k >= 0) {
            EXPECT_EQ(doc["k"].asInt(), c.k);
            continue;
        }
        EXPECT_EQ(doc, Json::Value("untouched")) << "a failed load leaves the document alone";
        ASSERT_EQ(log.Records().size(), 1u);
        const std::string logged = log.Records()[0].text;
        EXPECT_NE(logged.find(root.Path()), std::string::npos) << logged;
        EXPECT_NE(logged.find(c.logged), std::string::npos) << logged;
    }
    Write("TEST_DOC", nullptr);
    Write("TEST_DOC/inside", "{}");
    Json::Value doc;
    EXPECT_EQ(Q7R_GetJsonByEnv("TEST_DOC", doc), -1) << "a folder";
    EXPECT_EQ(Q7R_GetJsonByEnv(nullptr, doc), -1);
}

TEST_F(RecorderRoot, SystemConfigValuesOrDefaults) {
    const std::pair<const char*, const char*> cases[] = {
        {nullptr, "0 4 0"},
        {R"({"PRODUCT_TYPE": 7, "VI_CHN_NUM": 8, "DIGITAL_CHN_NUM": 16})", "7 8 16"},
        {R"({"PRODUCT_TYPE": 3})", "3 4 0"},  // read afresh, not cached
        {R"({"PRODUCT_TYPE": "7", "VI_CHN_NUM": -2, "DIGITAL_CHN_NUM": 1.5})", "0 4 0"},
        {R"({"PRODUCT_TYPE": null, "VI_CHN_NUM": 5000000000, "DIGITAL_CHN_NUM": [1]})", "0 4 0"},
        {R"([{"PRODUCT_TYPE": 7}])", "0 4 0"},
    };
    for (const auto& [document, values] : cases) {
        Write("SYSTEM_CONFIG", document);
        Json::Value systemConfig;
        EXPECT_EQ(Q7R_GetSpecInfo(systemConfig), document ? 0 : -1);
        EXPECT_EQ(std::to_string(Q7R_GetProductType()) + " " + std::to_string(Q7R_GetVichnNum()) +
                      " " + std::to_string(Q7R_GetDigitalchnNum()),
                  values)
            << (document ? document : "no SYSTEM_CONFIG");
    }
}

TEST_F(RecorderRoot, TextsOfTheConfiguredLanguageElseEnglishElseTheId) {
    const char* const kEnglish = R"({"STR_A": "Alpha", "STR_NUMBER": 5})";
    struct Case {
        const char* systemConfig;
        const char* englishTable;
        const char* text;  // of STR_A; the id itself when the table is unusable
    };
    const Case cases[] = {
        {nullptr, kEnglish, "Alpha"},
        {R"({"LANGUAGE": "de"})", kEnglish, "Alfa"},
        {R"({"LANGUAGE": "../lang/de"})", kEnglish, "Alpha"},
        {R"({"LANGUAGE": ""})", kEnglish, "Alpha"},
        {nullptr, nullptr, "STR_A"},
        {nullptr, R"({"STR_A": "Alpha")", "STR_A"},
        {nullptr, R"(["Alpha"])", "STR_A"},
    };
    Write("lang/de.json", R"({"STR_A": "Alfa"})");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.systemConfig ? c.systemConfig : "-") + " / " +
                     (c.englishTable ? c.englishTable : "-"));
        Write("SYSTEM_CONFIG", c.systemConfig);
        Write("lang/en.json", c.englishTable);
        GuiTKResetForTest();
        LogCapture log;
        EXPECT_STREQ(Text("STR_A"), c.text);
        EXPECT_STREQ(Text("STR_B"), "STR_B");
        EXPECT_STREQ(Text("STR_NUMBER"), "STR_NUMBER") << "not a text";
        bool unusable = strcmp(c.text, "STR_A") == 0;
        EXPECT_EQ(log.Count("lang/en.json") + log.Count("language table en"), unusable ? 1u : 0u)
            << "logged once per load, not per lookup";
    }
    std::string id = "STR_NOT_THERE";
    const char* unknown = Text(id.c_str());
    id.assign(100, 'z');
    EXPECT_STREQ(unknown, "STR_NOT_THERE") << "outlives the caller's string";
    EXPECT_STREQ(Text(nullptr), "");
}

TEST_F(RecorderRoot, LanguageSwitchTakesEffectAtTheNextLookupInEveryThread) {
    Write("lang/en.json", R"({"STR_A": "Alpha"})");
    Write("lang/de.json", R"({"STR_A": "Alfa"})");
    const char* english = Text("STR_A");
    EXPECT_STREQ(english, "Alpha");
    Write("SYSTEM_CONFIG", R"({"LANGUAGE": "de"})");
    EXPECT_STREQ(Text("STR_A"), "Alfa") << "nobody told the toolkit";
    Write("lang/de.json", R"({"STR_A": "Alfa!"})");
    EXPECT_STREQ(Text("STR_A"), "Alfa!") << "a table that changed is read again";

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 300; ++i) {
                if (t == 0 && i % 10 == 0) {
                    GuiTKResetForTest();
                }
                if (strcmp(Text("STR_A"), "Alfa!") != 0) {
                    ADD_FAILURE() << Text("STR_A") << " at lookup " << i << " of thread " << t;
                    return;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_STREQ(english, "Alpha") << "texts handed out before stay valid";
}

}  // namespace
