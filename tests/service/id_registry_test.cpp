#include "service/id_registry.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/temp_dir.h"

namespace tolvar::service {
namespace {

IdRegistry::Key oper(const std::string& name) { return {CodeType::Oper, 0, name}; }

std::string textFault(const std::string& text) {
  try {
    IdRegistry::fromText(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(IdRegistry, GivesIdsUpwardsAndKeepsThem) {
  IdRegistry ids;
  EXPECT_EQ(ids.assign(oper("b"), 1, 9), 1);
  EXPECT_EQ(ids.assign(oper("a"), 1, 9), 2);
  EXPECT_EQ(ids.assign(oper("b"), 1, 9), 1);
  EXPECT_EQ(ids.find(oper("a")), 2);
  EXPECT_FALSE(ids.find(oper("c")).has_value());
}

TEST(IdRegistry, CountsEachParentAndTypeByItself) {
  IdRegistry ids;
  EXPECT_EQ(ids.assign({CodeType::City, 276001, "X"}, 276001001, 276001999), 276001001);
  EXPECT_EQ(ids.assign({CodeType::City, 276002, "X"}, 276002001, 276002999), 276002001);
  EXPECT_EQ(ids.assign({CodeType::Oper, 0, "X"}, 1, 9), 1);
  EXPECT_EQ(ids.assign({CodeType::Apn, 0, "X"}, 1, 9), 1);
}

TEST(IdRegistry, EndsAtTheLastId) {
  IdRegistry ids;
  EXPECT_EQ(ids.assign(oper("a"), 1, 1), 1);
  EXPECT_FALSE(ids.assign(oper("b"), 1, 1).has_value());
  EXPECT_EQ(ids.size(), 1u);
}

TEST(IdRegistry, SurvivesAsText) {
  IdRegistry ids;
  ids.assign(oper("tab\there"), 1, 9);
  ids.assign(oper("line\nend\r back\\slash"), 1, 9);
  ids.assign({CodeType::Province, 276, "Südfeld"}, 276001, 276999);
  const IdRegistry copy = IdRegistry::fromText(ids.toText());
  EXPECT_EQ(copy, ids);
  EXPECT_EQ(copy.toText(), ids.toText());
}

TEST(IdRegistry, ReadBackGoesOnWhereItWas) {
  IdRegistry ids;
  ids.assign(oper("a"), 1, 9);
  ids.assign(oper("b"), 1, 9);
  IdRegistry copy = IdRegistry::fromText(ids.toText());
  EXPECT_EQ(copy.assign(oper("c"), 1, 9), 3);
}

TEST(IdRegistry, NeverHasOneIdForTwoNames) {
  IdRegistry ids;
  ids.restore(oper("a"), 1);
  EXPECT_NO_THROW(ids.restore(oper("a"), 1));
  EXPECT_THROW(ids.restore(oper("b"), 1), std::invalid_argument);
  EXPECT_THROW(ids.restore(oper("a"), 2), std::invalid_argument);
  EXPECT_EQ(ids.size(), 1u);
}

TEST(IdRegistry, DamagedTextNamesItsLine) {
  const std::string expected = "expected type 1 to 8, parent, id and name, separated by tabs";
  EXPECT_EQ(textFault("6\t0\t1\ta\n6\t0\tx\tb\n"), "line 2: " + expected);
  EXPECT_EQ(textFault("9\t0\t1\ta\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("0\t0\t1\ta\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("6\t0\t0\ta\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("6\t0\t1\t\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("6\t0\t1\ta\\x\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("\n"), "line 1: " + expected);
  EXPECT_EQ(textFault("6\t0\t1\ta"), "line 1: the line has no end");
  EXPECT_EQ(textFault("6\t0\t1\ta\n6\t0\t1\tb\n"), "line 2: id 1 belongs to a and cannot go to b");
}

TEST(IdRegistry, LivesInAFile) {
  const tolvar_test::TempDir dir;
  EXPECT_EQ(IdRegistry::load(dir.file("ids")).size(), 0u);
  IdRegistry ids;
  ids.assign(oper("a"), 1, 9);
  ids.save(dir.file("ids"));
  EXPECT_EQ(IdRegistry::load(dir.file("ids")), ids);
  ids.assign(oper("b"), 1, 9);
  ids.save(dir.file("ids"));
  EXPECT_EQ(IdRegistry::load(dir.file("ids")), ids);
}

TEST(IdRegistry, FileFaultsNameTheFile) {
  const tolvar_test::TempDir dir;
  tolvar_test::writeFile(dir.file("ids"), "junk\n");
  try {
    IdRegistry::load(dir.file("ids"));
    FAIL() << "the file was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "id registry " + dir.file("ids") +
                                ": line 1: expected type 1 to 8, parent, id and name, separated by "
                                "tabs");
  }
  EXPECT_THROW(IdRegistry::load(dir.path()), std::runtime_error);
  EXPECT_THROW(IdRegistry().save(dir.file("none/ids")), std::runtime_error);
}

}  // namespace
}  // namespace tolvar::service
