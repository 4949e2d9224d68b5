#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <kestrova/context_reader.h>
#include <kestrova/unicode.h>

#include "context_files.h"
#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::TestFolder;
using testing::writeFile;

std::vector<ProjectText> projectsOf(const std::vector<std::string>& folders,
                                    std::string freeText = "") {
  UserContext context;
  context.folderPaths = folders;
  context.freeText = std::move(freeText);
  return ContextReader::projects(context);
}

const ProjectText* findProject(const std::vector<ProjectText>& projects, std::string_view name) {
  for (const ProjectText& p : projects) {
    if (p.name == name) {
      return &p;
    }
  }
  return nullptr;
}

TEST(ContextReaderProjects, ReadsOnlyTheAllowedNames) {
  TestFolder tmp;
  writeFile(tmp / "alpha/CLAUDE.md", "Wir bauen einen Kompass.");
  writeFile(tmp / "alpha/notes.md", "geheime Notizen");
  writeFile(tmp / "alpha/readme.md", "klein geschrieben");
  writeFile(tmp / "alpha/README.MD", "gross geschrieben");
  writeFile(tmp / "alpha/TODO.yml", "falsche Endung");
  writeFile(tmp / "beta/readme.md", "nur klein");
  EXPECT_EQ(ContextReader::projectCount((tmp / "beta").string()), 0);

  auto projects = projectsOf({(tmp / "alpha").string()});
  ASSERT_EQ(projects.size(), 1u);
  EXPECT_EQ(projects[0].name, "alpha");
  EXPECT_EQ(projects[0].path, (tmp / "alpha").string());
  EXPECT_EQ(projects[0].text, "Wir bauen einen Kompass.");
}

TEST(ContextReaderProjects, FindsFilesTwoLevelsDownButNotThree) {
  TestFolder tmp;
  writeFile(tmp / "root/a/b/TODO.yaml", "zwei Ebenen");
  writeFile(tmp / "root/x/y/z/TODO.yaml", "drei Ebenen");
  writeFile(tmp / "root/README.md", "oben");

  auto projects = projectsOf({(tmp / "root").string()});
  ASSERT_EQ(projects.size(), 2u);
  ASSERT_NE(findProject(projects, "b"), nullptr);
  EXPECT_EQ(findProject(projects, "b")->text, "zwei Ebenen");
  EXPECT_EQ(findProject(projects, "b")->path, (tmp / "root/a/b").string());
  EXPECT_EQ(findProject(projects, "z"), nullptr);
  EXPECT_EQ(ContextReader::projectCount((tmp / "root").string()), 2);
}

TEST(ContextReaderProjects, SkipsHiddenEntriesAndPackages) {
  TestFolder tmp;
  writeFile(tmp / "root/.git/README.md", "versteckt");
  writeFile(tmp / "root/.hidden/sub/CLAUDE.md", "versteckt");
  writeFile(tmp / "root/Werkzeug.app/README.md", "Paket");
  writeFile(tmp / "root/Album.PhotosLibrary/README.md", "Paket");
  writeFile(tmp / "root/docs.v2/README.md", "normaler Ordner mit Punkt");

  auto projects = projectsOf({(tmp / "root").string()});
  ASSERT_EQ(projects.size(), 1u);
  EXPECT_EQ(projects[0].name, "docs.v2");
}

TEST(ContextReaderProjects, WalksDepthFirstInByteOrder) {
  TestFolder tmp;
  writeFile(tmp / "r/b/README.md", "b");
  writeFile(tmp / "r/B/README.md", "B");
  writeFile(tmp / "r/a/z/README.md", "az");
  writeFile(tmp / "r/README.md", "r");

  auto projects = projectsOf({(tmp / "r").string()});
  std::vector<std::string> texts;
  for (const auto& p : projects) {
    texts.push_back(p.text);
  }
  // Upper case sorts before lower case; a folder's subtree comes before its next sibling.
  EXPECT_EQ(texts, (std::vector<std::string>{"B", "r", "az", "b"}));
}

TEST(ContextReaderProjects, CutsLongFilesToMaxCharacters) {
  TestFolder tmp;
  writeFile(tmp / "ascii/README.md", std::string(50000, 'x'));
  std::string umlauts;
  for (int i = 0; i < 50000; ++i) {
    umlauts += "ä";
  }
  writeFile(tmp / "umlaut/README.md", umlauts);

  auto projects = projectsOf({(tmp / "ascii").string(), (tmp / "umlaut").string()});
  ASSERT_EQ(projects.size(), 2u);
  EXPECT_EQ(projects[0].text, std::string(30000, 'x'));
  EXPECT_EQ(unicode::graphemeCount(projects[1].text), 30000u);
  EXPECT_EQ(projects[1].text.size(), 60000u);
}

TEST(ContextReaderProjects, FreeTextIsTrimmedAndComesLast) {
  TestFolder tmp;
  writeFile(tmp / "p/README.md", "Projekt");

  EXPECT_TRUE(projectsOf({}, "   \n\t  ").empty());

  auto projects = projectsOf({(tmp / "p").string()}, "  \u00A0Wort \n");
  ASSERT_EQ(projects.size(), 2u);
  EXPECT_EQ(projects[1], (ProjectText{"Eigener Text", "", "Wort"}));
}

TEST(ContextReaderProjects, ExpandsTheHomeFolder) {
  TestFolder tmp;
  writeFile(tmp / "home/Projekte/kompass/README.md", "Heim");
  testing::FakeEnv env({.variables = {{"HOME", (tmp / "home").string()}}});

  UserContext context;
  context.folderPaths = {"~/Projekte/kompass"};
  auto projects = ContextReader::projects(context, env);
  ASSERT_EQ(projects.size(), 1u);
  EXPECT_EQ(projects[0].path, (tmp / "home/Projekte/kompass").string());
  EXPECT_EQ(projects[0].text, "Heim");
  EXPECT_EQ(context_files::expandTilde("~", env), (tmp / "home").string());
}

TEST(ContextReaderProjects, FileFoundFromSeveralConfiguredFoldersIsAppendedPerFind) {
  TestFolder tmp;
  writeFile(tmp / "root/README.md", "oben");
  writeFile(tmp / "root/sub/README.md", "unten");
  writeFile(tmp / "outside/TODO.yaml", "draussen");
  // Inside "root" but outside "root/sub": read when found from "root" only.
  fs::create_symlink(tmp / "root/README.md", tmp / "root/sub/CLAUDE.md");
  fs::create_symlink(tmp / "outside/TODO.yaml", tmp / "root/sub/TODO.yaml");

  using Projects = std::vector<std::pair<std::string, std::string>>;  // (folder, text)
  struct Case {
    std::vector<std::string> folders;
    Projects expected;
  };
  const Case cases[] = {
      {{"root", "root/sub"}, {{"root", "oben"}, {"root/sub", "oben\n\nunten\n\nunten"}}},
      {{"root/sub", "root"}, {{"root/sub", "unten\n\noben\n\nunten"}, {"root", "oben"}}},
      {{"root/sub", "root/./sub/"}, {{"root/sub", "unten\n\nunten"}}},
      {{"root", "root/"},
       {{"root", "oben\n\noben"}, {"root/sub", "oben\n\nunten\n\noben\n\nunten"}}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> folders;
    for (const std::string& folder : c.folders) {
      folders.push_back((tmp.path() / folder).string());
    }
    Projects got;
    for (const ProjectText& p : projectsOf(folders)) {
      got.emplace_back(fs::path(p.path).lexically_relative(tmp.path()).string(), p.text);
    }
    EXPECT_EQ(got, c.expected) << ::testing::PrintToString(c.folders);
  }
}

TEST(ContextReaderProjects, SymbolicLinksDoNotLeaveTheFolder) {
  TestFolder tmp;
  writeFile(tmp / "outside/README.md", "draussen");
  writeFile(tmp / "outside/deep/CLAUDE.md", "draussen tief");
  writeFile(tmp / "root/docs/notes.txt", "drinnen verlinkt");
  fs::create_directories(tmp / "root/a");
  fs::create_directories(tmp / "root/b");
  fs::create_symlink(tmp / "outside/README.md", tmp / "root/a/README.md");
  fs::create_directory_symlink(tmp / "outside", tmp / "root/linked");
  fs::create_directory_symlink(tmp / "root", tmp / "root/b/loop");
  fs::create_symlink(tmp / "root/docs/notes.txt", tmp / "root/b/README.md");
  fs::create_symlink(tmp / "root/missing.md", tmp / "root/docs/CLAUDE.md");

  auto projects = projectsOf({(tmp / "root").string()});
  ASSERT_EQ(projects.size(), 1u);
  EXPECT_EQ(projects[0].name, "b");
  EXPECT_EQ(projects[0].text, "drinnen verlinkt");
}

TEST(ContextReaderProjects, SkipsMissingEmptyAndUnreadableInput) {
  TestFolder tmp;
  writeFile(tmp / "empty/README.md", "");
  writeFile(tmp / "locked/README.md", "gesperrt");
  writeFile(tmp / "fine/README.md", "gut");
  ::mkfifo((tmp / "fifo").string().c_str(), 0600);
  fs::create_directories(tmp / "pipe");
  ::mkfifo((tmp / "pipe/README.md").string().c_str(), 0600);
  ::chmod((tmp / "locked/README.md").string().c_str(), 0);

  auto projects = projectsOf({"", (tmp / "missing").string(), (tmp / "empty").string(),
                              (tmp / "locked").string(), (tmp / "pipe").string(),
                              (tmp / "fine/README.md").string(), (tmp / "fine").string()});
  ASSERT_GE(projects.size(), 1u);
  // Root may still read a file without permissions; everyone else must not see it.
  if (::geteuid() != 0) {
    ASSERT_EQ(projects.size(), 1u);
  }
  EXPECT_EQ(projects.back().name, "fine");
  EXPECT_EQ(projects.back().text, "gut");
}

TEST(ContextReaderReadLimited, CharacterCutByTheByteLimitBecomesOneReplacement) {
  TestFolder tmp;
  // Six-byte characters (a letter with a combining accent), so the byte limit comes before the
  // character limit; the euro sign then straddles byte 120,000.
  std::string content;
  for (int i = 0; i < 19999; ++i) {
    content += "\U0001D400\u0301";
  }
  content += "abcd";
  ASSERT_EQ(content.size(), 119998u);
  content += "\u20AC and more";
  writeFile(tmp / "README.md", content);

  auto text = context_files::readLimited(tmp / "README.md");
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(text->size(), 119998u + 3u);
  EXPECT_TRUE(text->ends_with("abcd\uFFFD"));
  EXPECT_EQ(unicode::graphemeCount(*text), 19999u + 4u + 1u);
}

}  // namespace
}  // namespace kestrova
