#include "service/iso_countries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/import_error.h"
#include "tests/support/temp_dir.h"

namespace tolvar::service {
namespace {

/// What loading a list with the content `text` fails with, the file's name cut off.
std::string loadFault(const std::string& text) {
  const tolvar_test::TempDir dir;
  tolvar_test::writeFile(dir.file("iso.json"), text);
  try {
    IsoCountries::load(dir.file("iso.json"));
  } catch (const ImportError& error) {
    return error.faults().at(0).message;
  }
  return "";
}

TEST(IsoCountries, FindsCodesAndNames) {
  const IsoCountries countries = IsoCountries::load();
  for (const char* text : {"DE", "DEU", "Germany", "germany", "Federal Republic of Germany"}) {
    const auto country = countries.find(text);
    ASSERT_TRUE(country.has_value()) << text;
    EXPECT_EQ(country->id, 276) << text;
    EXPECT_EQ(country->name, "Germany") << text;
  }
  EXPECT_TRUE(countries.find("DE")->isCode);
  EXPECT_FALSE(countries.find("Germany")->isCode);
  EXPECT_EQ(countries.find("AF")->id, 4) << "leading zeros are no octal";
  EXPECT_EQ(countries.find("South Korea")->id, 410);
}

TEST(IsoCountries, KnowsTheCodesThatRegistriesUseBesides) {
  const IsoCountries countries = IsoCountries::load();
  const auto expect = [&](const char* code, std::int64_t id, const char* name) {
    const auto country = countries.findCode(code);
    ASSERT_TRUE(country.has_value()) << code;
    EXPECT_EQ(country->id, id) << code;
    EXPECT_EQ(country->name, name) << code;
    EXPECT_TRUE(country->isListed) << code;
  };
  expect("??", 900, "Unknown");
  expect("AN", 901, "Netherlands Antilles");
  expect("AP", 902, "Asia/Pacific region");
  expect("CS", 903, "Serbia and Montenegro");
  expect("EU", 904, "European Union");
  expect("UK", 905, "United Kingdom");
}

TEST(IsoCountries, ANameThatIsoKnowsMeansItsCountryThere) {
  EXPECT_EQ(IsoCountries::load().find("United Kingdom")->id, 826);
}

TEST(IsoCountries, UnlistedCapitalsStandForThemselves) {
  const IsoCountries countries = IsoCountries::load();
  const auto country = countries.findCode("XK");
  ASSERT_TRUE(country.has_value());
  EXPECT_EQ(country->id, 3000 + 26 * 23 + 10);
  EXPECT_EQ(country->name, "XK");
  EXPECT_FALSE(country->isListed);
  EXPECT_EQ(countries.findCode("ZZ")->id, 3675);
}

TEST(IsoCountries, EverythingElseIsUnknown) {
  const IsoCountries countries = IsoCountries::load();
  for (const char* text : {"", "de", "D", "D1", "?", "XYZ", "Atlantis"})
    EXPECT_FALSE(countries.findCode(text).has_value()) << text;
  EXPECT_FALSE(countries.find("Atlantis").has_value());
}

TEST(IsoCountries, MissingFileNamesThePackage) {
  try {
    IsoCountries::load("/nonexistent/iso.json");
    FAIL() << "the file was read";
  } catch (const ImportError& error) {
    EXPECT_STREQ(error.what(),
                 "/nonexistent/iso.json: cannot read the country list (No such file or directory); "
                 "install the package iso-codes or name another file");
  }
}

TEST(IsoCountries, DamagedFilesSayWhatIsWrong) {
  using testing::StartsWith;
  EXPECT_EQ(loadFault(""),
            "cannot read the country list (nothing can be read from it); install the package "
            "iso-codes or name another file");
  EXPECT_THAT(loadFault("{\"3166-1\": ["), StartsWith("the country list is not JSON: "));
  const std::string form = "the country list is not in the form of iso-codes: ";
  EXPECT_THAT(loadFault("[]"), StartsWith(form));
  EXPECT_THAT(loadFault("{\"3166-1\": [{\"alpha_2\": \"DE\"}]}"), StartsWith(form));
  EXPECT_EQ(loadFault("{\"3166-1\": [{\"alpha_2\": \"DE\", \"alpha_3\": \"DEU\", \"name\": \"G\", "
                      "\"numeric\": \"900\"}]}"),
            form + "numeric code 900 is not between 001 and 899");
}

}  // namespace
}  // namespace tolvar::service
