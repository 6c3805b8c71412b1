// The message catalogues of "pelio-service", as the service selects a language.
#include <gtest/gtest.h>

#include <pelio/platform/I18n.h>

#include <libintl.h>
#include <locale.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using namespace pelio::platform;

namespace {

std::string translate(const char* language, const char* msgid) {
    setenv("LANGUAGE", language, 1);
    setenv("LC_MESSAGES", language, 1);
    setlocale(LC_ALL, language);  // fails when the locale is not installed; that must not matter
    refreshServiceTranslations();
    return dgettext(kServiceTextDomain, msgid);
}

TEST(I18nTest, CataloguesTranslateUnderTheServiceLocaleNames) {
    const char* savedLanguage = std::getenv("LANGUAGE");
    const std::string saved = savedLanguage ? savedLanguage : "";
    setlocale(LC_ALL, "C");  // as a service started without any locale environment

    const std::string dir = bindServiceTextDomain();
    EXPECT_EQ(dir, std::string(PELIO_BINARY_DIR) + "/share/locale") << "uninstalled run";
    EXPECT_TRUE(std::filesystem::exists(dir + "/ko_KR/LC_MESSAGES/pelio-service.mo"));

    EXPECT_EQ(translate("ko_KR", "contact_mobile"), "휴대전화");
    EXPECT_EQ(translate("de_DE", "IDS_VOICE_BODY_FAX_HHOME"), "Fax (privat)");
    EXPECT_EQ(translate("zh_TW", "contact_work"), "公司");
    // Every supported locale has a catalogue with all labels translated.
    for (const char* lang : {"de_DE", "en_GB", "en_US", "es_ES", "es_US", "fr_FR", "it_IT", "pt_BR",
                             "ru_RU", "ja_JP", "ko_KR", "zh_CN", "zh_HK", "zh_SG", "zh_TW"}) {
        for (const char* id :
             {"contact_other", "contact_mobile", "contact_home", "contact_work",
              "IDS_VOICE_BODY_FAX_HHOME", "IDS_VOICE_BODY_FAX_HWORK", "IDS_PB_BODY_PAGER"}) {
            EXPECT_NE(translate(lang, id), id) << lang << " " << id;
        }
    }
    // An unknown message id comes back unchanged.
    EXPECT_EQ(translate("ko_KR", "main"), "main");

    if (savedLanguage)
        setenv("LANGUAGE", saved.c_str(), 1);
    else
        unsetenv("LANGUAGE");
    unsetenv("LC_MESSAGES");
    setlocale(LC_ALL, "C");
    refreshServiceTranslations();
}

}  // namespace
