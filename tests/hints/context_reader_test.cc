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

// One tree for the walk's rules: depth-first in byte order (upper case before lower case, a
// folder's subtree before its next sibling), at most two levels down, only the allowed names with
// their exact case, no hidden folders and no packages.
TEST(ContextReaderProjects, WalkLimitsAndOrder) {
  TestFolder tmp;
  // Links are read only where they stay inside the folder, and a loop is not walked.
  writeFile(tmp / "r/docs/notes.txt", "b");
  fs::create_directories(tmp / "r/b");
  fs::create_symlink(tmp / "r/docs/notes.txt", tmp / "r/b/README.md");
  fs::create_directory_symlink(tmp / "r", tmp / "r/b/loop");
  fs::create_symlink(tmp / "r/missing.md", tmp / "r/docs/CLAUDE.md");
  writeFile(tmp / "outside/README.md", "draussen");
  writeFile(tmp / "outside/deep/CLAUDE.md", "draussen tief");
  fs::create_directories(tmp / "r/a");
  fs::create_symlink(tmp / "outside/README.md", tmp / "r/a/README.md");
  fs::create_directory_symlink(tmp / "outside", tmp / "r/linked");
  writeFile(tmp / "r/B/README.md", "B");
  writeFile(tmp / "r/a/z/TODO.yaml", "az");
  writeFile(tmp / "r/x/y/z/TODO.yaml", "drei Ebenen");
  writeFile(tmp / "r/README.md", "r");
  writeFile(tmp / "r/c/CLAUDE.md", "Kompass");
  for (const char* name : {"notes.md", "readme.md", "README.MD", "TODO.yml"}) {
    writeFile(tmp / "r/c" / name, "falscher Name");
  }
  for (const char* hidden : {".git/README.md", ".hidden/sub/CLAUDE.md", "Werkzeug.app/README.md",
                             "Album.PhotosLibrary/README.md"}) {
    writeFile(tmp / "r" / hidden, "versteckt");
  }
  writeFile(tmp / "r/docs.v2/README.md", "Punkt");
  writeFile(tmp / "beta/readme.md", "nur klein");
  EXPECT_EQ(ContextReader::projectCount((tmp / "beta").string()), 0);
  EXPECT_EQ(ContextReader::projectCount((tmp / "r").string()), 6);

  std::vector<std::vector<std::string>> got;
  for (const ProjectText& p : projectsOf({(tmp / "r").string()})) {
    got.push_back({p.name, fs::path(p.path).lexically_relative(tmp.path()).string(), p.text});
  }
  EXPECT_EQ(got, (std::vector<std::vector<std::string>>{{"B", "r/B", "B"},
                                                        {"r", "r", "r"},
                                                        {"z", "r/a/z", "az"},
                                                        {"b", "r/b", "b"},
                                                        {"c", "r/c", "Kompass"},
                                                        {"docs.v2", "r/docs.v2", "Punkt"}}));
}

TEST(ContextReaderProjects, ExpandsTheHomeFolderAndPutsTrimmedFreeTextLast) {
  TestFolder tmp;
  writeFile(tmp / "home/Projekte/kompass/README.md", "Heim");
  testing::FakeEnv env({.variables = {{"HOME", (tmp / "home").string()}}});
  EXPECT_TRUE(projectsOf({}, "   \n\t  ").empty());
  UserContext context;
  context.folderPaths = {"~/Projekte/kompass"};
  context.freeText = "  \u00A0Wort \n";
  auto projects = ContextReader::projects(context, env);
  ASSERT_EQ(projects.size(), 2u);
  EXPECT_EQ(projects[0].path, (tmp / "home/Projekte/kompass").string());
  EXPECT_EQ(projects[0].text, "Heim");
  EXPECT_EQ(projects[1], (ProjectText{"Eigener Text", "", "Wort"}));
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

TEST(ContextReaderProjects, CutsLongFilesAndSkipsMissingEmptyAndUnreadableInput) {
  TestFolder tmp;
  writeFile(tmp / "ascii/README.md", std::string(50000, 'x'));
  std::string umlauts;
  for (int i = 0; i < 50000; ++i)
    umlauts += "ä";
  writeFile(tmp / "umlaut/README.md", umlauts);
  writeFile(tmp / "empty/README.md", "");
  writeFile(tmp / "locked/README.md", "gesperrt");
  writeFile(tmp / "fine/README.md", "gut");
  ::mkfifo((tmp / "fifo").string().c_str(), 0600);
  fs::create_directories(tmp / "pipe");
  ::mkfifo((tmp / "pipe/README.md").string().c_str(), 0600);
  ::chmod((tmp / "locked/README.md").string().c_str(), 0);

  auto projects = projectsOf({(tmp / "ascii").string(), (tmp / "umlaut").string(), "",
                              (tmp / "missing").string(), (tmp / "empty").string(),
                              (tmp / "locked").string(), (tmp / "pipe").string(),
                              (tmp / "fine/README.md").string(), (tmp / "fine").string()});
  ASSERT_GE(projects.size(), 3u);
  EXPECT_EQ(projects[0].text, std::string(30000, 'x'));
  EXPECT_EQ(unicode::graphemeCount(projects[1].text), 30000u);
  EXPECT_EQ(projects[1].text.size(), 60000u);
  // Root may still read a file without permissions; everyone else must not see it.
  if (::geteuid() != 0) {
    ASSERT_EQ(projects.size(), 3u);
  }
  EXPECT_EQ(projects.back().name, "fine");
  EXPECT_EQ(projects.back().text, "gut");
}

TEST(ContextReaderReadLimited, CharacterCutByTheByteLimitBecomesOneReplacement) {
  TestFolder tmp;
  // Six-byte characters (a letter with a combining accent), so the byte limit comes before the
  // character limit; the euro sign then straddles byte 120,000.
  std::string content;
  for (int i = 0; i < 19999; ++i)
    content += "\U0001D400\u0301";
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
