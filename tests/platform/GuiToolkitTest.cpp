#include <string.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "GuiToolkit.h"
#include "TestSupport.h"

namespace {

using pmtest::LogCapture;
using pmtest::ScopedEnv;
using pmtest::TempDir;

class GuiTextTest : public testing::Test {
protected:
    // The loaded table is process-wide; every case starts from a forgotten one.
    void SetUp() override { GuiTKReloadLanguage(); }
    void TearDown() override { GuiTKReloadLanguage(); }

    void WriteLanguage(const std::string& language) {
        root.Write("usr/local/cfg/SYSTEM_CONFIG", R"({"LANGUAGE": ")" + language + R"("})");
    }
    void WriteTable(const std::string& language, const std::string& json) {
        root.Write("usr/local/cfg/lang/" + language + ".json", json);
    }

    TempDir root;
    ScopedEnv rootEnv{"RECORDER_ROOT", root.Path()};
    ScopedEnv noSystemConfig{"SYSTEM_CONFIG", std::nullopt};
};

TEST_F(GuiTextTest, FindsTextOfTheConfiguredLanguage) {
    WriteLanguage("de");
    WriteTable("de", R"({"STR_EXTEND_BOX_FLAG": "Erweiterungsbox", "STR_A": "Alfa"})");
    WriteTable("en", R"({"STR_A": "Alpha"})");
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_EXTEND_BOX_FLAG"), "Erweiterungsbox");
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_A"), "Alfa");
}

TEST_F(GuiTextTest, EnglishUnlessALanguageIsConfigured) {
    WriteTable("en", R"({"STR_A": "Alpha"})");
    const char* const systemConfigs[] = {nullptr, R"({})", R"({"LANGUAGE": 3})",
                                         R"({"LANGUAGE": "../../../en"})", R"({"LANGUAGE": ""})"};
    for (const char* systemConfig : systemConfigs) {
        if (systemConfig != nullptr) {
            root.Write("usr/local/cfg/SYSTEM_CONFIG", systemConfig);
        }
        GuiTKReloadLanguage();
        EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_A"), "Alpha")
            << (systemConfig ? systemConfig : "no SYSTEM_CONFIG");
    }
}

TEST_F(GuiTextTest, UnknownIdComesBackAndOutlivesTheCallersString) {
    WriteTable("en", R"({"STR_A": "Alpha", "STR_NUMBER": 5})");
    std::string id = "STR_NOT_THERE";
    const char* text = GuiTKGetText(nullptr, nullptr, id.c_str());
    EXPECT_NE(text, id.c_str());
    id.assign(100, 'z');
    EXPECT_STREQ(text, "STR_NOT_THERE");
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_NUMBER"), "STR_NUMBER") << "not a text";
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, nullptr), "");
}

TEST_F(GuiTextTest, MissingOrDamagedTableGivesTheIds) {
    const char* const tables[] = {nullptr, R"({"STR_A": "Alpha")", R"(["Alpha"])"};
    for (const char* table : tables) {
        if (table != nullptr) {
            WriteTable("en", table);
        }
        GuiTKReloadLanguage();
        LogCapture log;
        EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_A"), "STR_A");
        EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_B"), "STR_B");
        EXPECT_EQ(log.Count("lang/en.json") + log.Count("language table en"), 1u)
            << "logged once per load, not per lookup: " << (table ? table : "no table");
    }
}

TEST_F(GuiTextTest, LanguageSwitchTakesEffectOnReload) {
    WriteLanguage("en");
    WriteTable("en", R"({"STR_A": "Alpha"})");
    WriteTable("de", R"({"STR_A": "Alfa"})");
    const char* english = GuiTKGetText(nullptr, nullptr, "STR_A");
    EXPECT_STREQ(english, "Alpha");

    WriteLanguage("de");
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_A"), "Alpha") << "until reloaded";
    GuiTKReloadLanguage();
    EXPECT_STREQ(GuiTKGetText(nullptr, nullptr, "STR_A"), "Alfa");
    EXPECT_STREQ(english, "Alpha") << "texts handed out before stay valid";

    WriteLanguage("en");
    GuiTKReloadLanguage();
    EXPECT_EQ(GuiTKGetText(nullptr, nullptr, "STR_A"), english) << "texts are kept once";
}

TEST_F(GuiTextTest, LookupsAndReloadsFromSeveralThreads) {
    WriteTable("en", R"({"STR_A": "Alpha"})");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                if (t == 0 && i % 10 == 0) {
                    GuiTKReloadLanguage();
                }
                const char* found = GuiTKGetText(nullptr, nullptr, "STR_A");
                const char* missing = GuiTKGetText(nullptr, nullptr, "STR_MISSING");
                if (strcmp(found, "Alpha") != 0 || strcmp(missing, "STR_MISSING") != 0) {
                    ADD_FAILURE() << found << " / " << missing;
                    return;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

}  // namespace
