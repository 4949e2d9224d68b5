#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <kestrova/context_reader.h>

#include "context_files.h"
#include "support/fake_env.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;
using testing::TestFolder;
using testing::writeFile;
using Lines = std::vector<std::string>;

// The projects of `folders` (but "") inside `tmp`, each as "<folder relative to tmp>: <text>".
Lines found(const TestFolder& tmp, const Lines& folders) {
  UserContext context;
  for (const std::string& folder : folders)
    context.folderPaths.push_back(folder.empty() ? "" : (tmp / folder).string());
  Lines out;
  for (const ProjectText& p : ContextReader::projects(context))
    out.push_back(fs::path(p.path).lexically_relative(tmp.path()).string() + ": " + p.text);
  return out;
}

// The walk: depth-first in byte order (upper case first, a subtree before the next sibling), two
// levels down at most, only the allowed names in their exact case, no hidden folders or packages.
TEST(ContextReaderProjects, WalkLimitsAndOrderAndAFileFoundFromSeveralFoldersOncePerFind) {
  TestFolder tmp;
  // clang-format off
  const std::pair<const char*, const char*> files[] = {
      {"r/docs/notes.txt", "b"}, {"r/b/notes.txt", "x"}, {"outside/README.md", "out"},
      {"outside/deep/CLAUDE.md", "tief"}, {"r/B/README.md", "B"}, {"r/a/z/TODO.yaml", "az"},
      {"r/x/y/z/TODO.yaml", "drei Ebenen"}, {"r/README.md", "r"}, {"r/c/CLAUDE.md", "Kompass"},
      {"r/docs.v2/README.md", "Punkt"}, {"beta/readme.md", "nur klein"}, {"r/c/notes.md", "x"},
      {"r/c/readme.md", "x"}, {"r/c/README.MD", "x"}, {"r/c/TODO.yml", "x"},
      {"r/.h/sub/CLAUDE.md", "x"}, {"r/W.app/README.md", "x"}, {"root/README.md", "oben"},
      {"r/A.PhotosLibrary/README.md", "x"}, {"root/sub/README.md", "unten"},
      {"outside/TODO.yaml", "draussen"}};
  // Links are read only where they stay inside the folder found from, and a loop is not walked.
  const std::pair<const char*, const char*> links[] = {
      {"r/docs/notes.txt", "r/b/README.md"}, {"r", "r/b/loop"}, {"outside", "r/linked"},
      {"r/missing.md", "r/docs/CLAUDE.md"}, {"outside/README.md", "r/a/README.md"},
      {"root/README.md", "root/sub/CLAUDE.md"}, {"outside/TODO.yaml", "root/sub/TODO.yaml"}};
  // clang-format on
  for (const auto& [path, text] : files)
    writeFile(tmp / path, text);
  for (const auto& [target, link] : links)
    fs::create_symlink(tmp / target, tmp / link);
  EXPECT_EQ(ContextReader::projectCount((tmp / "beta").string()), 0);
  EXPECT_EQ(ContextReader::projectCount((tmp / "r").string()), 6);
  EXPECT_EQ(found(tmp, {"r"}),
            (Lines{"r/B: B", "r: r", "r/a/z: az", "r/b: b", "r/c: Kompass", "r/docs.v2: Punkt"}));
  // A file found from several configured folders is appended once per find.
  const std::pair<Lines, Lines> cases[] = {
      {{"root", "root/sub"}, {"root: oben", "root/sub: oben\n\nunten\n\nunten"}},
      {{"root/sub", "root"}, {"root/sub: unten\n\noben\n\nunten", "root: oben"}},
      {{"root/sub", "root/./sub/"}, {"root/sub: unten\n\nunten"}},
      {{"root", "root/"}, {"root: oben\n\noben", "root/sub: oben\n\nunten\n\noben\n\nunten"}}};
  for (const auto& [folders, expected] : cases)
    EXPECT_EQ(found(tmp, folders), expected) << ::testing::PrintToString(folders);
}

TEST(ContextReaderProjects, ExpandsTheHomeFolderAndPutsTrimmedFreeTextLast) {
  TestFolder tmp;
  writeFile(tmp / "home/Projekte/kompass/README.md", "Heim");
  testing::FakeEnv env({.variables = {{"HOME", (tmp / "home").string()}}});
  UserContext context;
  context.freeText = "   \n\t  ";
  EXPECT_TRUE(ContextReader::projects(context, env).empty());
  context.folderPaths = {"~/Projekte/kompass"}, context.freeText = "  \u00A0Wort \n";
  EXPECT_EQ(ContextReader::projects(context, env),
            (std::vector<ProjectText>{{"kompass", (tmp / "home/Projekte/kompass").string(), "Heim"},
                                      {"Eigener Text", "", "Wort"}}));
}

TEST(ContextReaderProjects, CutsLongFilesAndSkipsMissingEmptyAndUnreadableInput) {
  TestFolder tmp;
  std::string umlauts;
  for (int i = 0; i < 50000; ++i)
    umlauts += "ä";
  writeFile(tmp / "umlaut/README.md", umlauts);
  writeFile(tmp / "empty/README.md", "");
  writeFile(tmp / "locked/README.md", "gesperrt");
  writeFile(tmp / "fine/README.md", "gut");
  fs::create_directories(tmp / "pipe");
  ::mkfifo((tmp / "pipe/README.md").string().c_str(), 0600);
  ::chmod((tmp / "locked/README.md").string().c_str(), 0);
  const Lines got =
      found(tmp, {"umlaut", "", "missing", "empty", "locked", "pipe", "fine/README.md", "fine"});
  ASSERT_GE(got.size(), 2u);
  EXPECT_EQ(got[0], "umlaut: " + umlauts.substr(0, 60000));  // 30,000 characters
  // Root may still read a file without permissions; everyone else must not see it.
  EXPECT_TRUE(got.size() == 2u || ::geteuid() == 0);
  EXPECT_EQ(got.back(), "fine: gut");
}

TEST(ContextReaderReadLimited, CharacterCutByTheByteLimitBecomesOneReplacement) {
  TestFolder tmp;
  // Six-byte characters reach the byte limit before the character limit; "€" straddles it.
  std::string content;
  for (int i = 0; i < 19999; ++i)
    content += "\U0001D400\u0301";
  content += "abcd";
  ASSERT_EQ(content.size(), 119998u);
  writeFile(tmp / "README.md", content + "\u20AC and more");
  EXPECT_EQ(context_files::readLimited(tmp / "README.md"), content + "\uFFFD");
}

}  // namespace
}  // namespace kestrova
