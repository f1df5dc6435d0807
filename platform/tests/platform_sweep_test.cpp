// Every platform call of operations of several calls fails: files, profiles, the key store, keys, documents, the host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "platform/crypto.h"
#include "platform/database.h"
#include "platform/file.h"
#include "platform/host.h"
#include "platform/profile.h"
#include "platform/public_file.h"
#include "platform/registry.h"
#include "platform/registry_save.h"
#include "platform/security.h"
#include "platform/service_files.h"
#include "platform/testing/fault_sweep.h"
#include "platform/testing/temporary_folder.h"
#include "platform/text.h"
#include "platform/xml.h"

namespace platform {
namespace {

using ::testing::AnyOf;
using ::testing::Eq;

using Files = std::map<std::string, std::string>;  // contents by name

class PlatformSweep : public ::testing::Test {
 protected:
  [[nodiscard]] std::string Path(const std::string& name) const { return m_folder + "/" + name; }
  void Clear() {
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) std::filesystem::remove_all(entry);
  }
  void Put(const std::string& name, const std::string& text) const { std::ofstream(Path(name), std::ios::binary) << text; }
  [[nodiscard]] std::string Text(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  [[nodiscard]] Files Now() const {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder)) {
      const std::string name = std::filesystem::relative(entry.path(), m_folder);
      if (entry.is_symlink()) {
        files[name] = "-> " + std::filesystem::read_symlink(entry.path()).string();
      } else if (entry.is_regular_file()) {
        files[name] = Text(name);
      }
    }
    return files;
  }
  // The code is that of the fault, or 0 where the call wasn't needed. Where later calls fail too it may be theirs.
  static void ExpectCode(ErrorCode rc, const SweptFault* fault) {
    if (fault != nullptr && fault->mode == kFromThenOn) return;
    EXPECT_THAT(rc, AnyOf(Eq(ErrorCode{ERROR_SUCCESS}), Eq(fault == nullptr ? ErrorCode{ERROR_SUCCESS} : fault->code)));
  }

  const TemporaryFolder m_temporary{"qxplatform"};
  const std::string m_folder = m_temporary.Path();
};

TEST_F(PlatformSweep, AReplacedFileIsTheOldOneOrTheNewOne) {
  ErrorCode rc = 0;
  (void)RunSweep({
      .name = "replace a file",
      .prepare =
          [&] {
            Clear();
            Put("a", "old");
          },
      .operation = [&] { rc = ReplaceWholeFile(Path("a"), "new", Durable::kYes); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            const bool isSyncOfDirectory = fault != nullptr && fault->detail == m_folder;
            EXPECT_EQ(Text("a"), rc == ERROR_SUCCESS || isSyncOfDirectory ? "new" : "old");
            if (fault == nullptr || fault->mode == kOnce) {
              EXPECT_EQ(Now().size(), 1u) << "a file is left";
            }
            EXPECT_EQ(ReplaceWholeFile(Path("a"), "next", Durable::kYes), ERROR_SUCCESS);
            EXPECT_EQ(Now(), (Files{{"a", "next"}}));
          },
  });
}

TEST_F(PlatformSweep, APublicFileIsWholeOrItsFailureIsTold) {
  ErrorCode rc = 0;
  (void)RunSweep({
      .name = "make a file that all may read",
      .prepare = [&] { Clear(); },
      .operation = [&] { rc = ReplacePublicFile(Path("a"), "new"); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            if (rc == ERROR_SUCCESS) {
              EXPECT_EQ(Text("a"), "new");
            }
            EXPECT_EQ(ReplacePublicFile(Path("a"), "next"), ERROR_SUCCESS);
            EXPECT_EQ(Text("a"), "next");
          },
  });
}

TEST_F(PlatformSweep, DirectoriesListsRenamesAndDeletionsTellTheirFailures) {
  ErrorCode codes[6] = {};
  std::vector<std::string> names;
  (void)RunSweep({
      .name = "directories, list, read, rename, delete",
      .prepare =
          [&] {
            Clear();
            Put("old", "text");
            names.clear();
          },
      .operation =
          [&] {
            std::string text;
            codes[0] = CreateDirectories(Path("one/two"));
            codes[1] = ReadWholeFile(Path("old"), text);
            codes[2] = RenameToNewFile(Path("old"), Path("new"), Durable::kYes);
            codes[3] = ListDirectory(m_folder, names);
            codes[4] = DeleteFile(Path("new"), Durable::kYes);
            File lock;
            codes[5] = lock.Open(Path("lock"), File::Access::kReadWrite, File::Disposition::kOpenAlways);
            if (codes[5] == ERROR_SUCCESS) codes[5] = lock.TryLockByte(0);
          },
      .judge =
          [&](const SweptFault* fault) {
            bool isTold = fault == nullptr;
            for (const ErrorCode rc : codes) isTold = isTold || rc != ERROR_SUCCESS;
            EXPECT_TRUE(isTold);
            EXPECT_EQ(codes[0] == ERROR_SUCCESS, std::filesystem::exists(Path("one/two")));
            if (codes[2] == ERROR_SUCCESS) {
              EXPECT_FALSE(std::filesystem::exists(Path("old")));
            }
            if (codes[4] == ERROR_SUCCESS) {
              EXPECT_FALSE(std::filesystem::exists(Path("new")));
            }
            if (codes[3] != ERROR_SUCCESS) {
              EXPECT_TRUE(names.empty());
            }
          },
  });
}

TEST_F(PlatformSweep, ABatchOfAProfileIsWrittenWholeOrNotAtAll) {
  ErrorCode rc = 0;
  const std::u16string path = WideFromUtf8(Path("a.ini"));
  const std::string before = "[s]\r\nkey=old\r\n";
  (void)RunSweep({
      .name = "profile: read and write three values in a batch",
      .prepare =
          [&] {
            Clear();
            Put("a.ini", before);
          },
      .operation =
          [&] {
            ProfileBatch batch(path, ProfileBatch::kSave);
            rc = ERROR_SUCCESS;
            const auto note = [&](ErrorCode code) {
              if (rc == ERROR_SUCCESS) rc = code;
            };
            note(WriteProfileString(path, u"s", u"key", u"new"));
            note(WriteProfileString(path, u"s", u"more", u"1"));
            note(WriteProfileString(path, u"t", u"key", u"2"));
            if (rc == ERROR_SUCCESS) rc = batch.Commit();
          },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            const std::string after = "[s]\r\nkey=new\r\nmore=1\r\n[t]\r\nkey=2\r\n";
            const bool isSyncOfDirectory = fault != nullptr && fault->detail == m_folder;
            EXPECT_EQ(Text("a.ini"), rc == ERROR_SUCCESS || isSyncOfDirectory ? after : before);
            char16_t buffer[16] = {};
            std::uint32_t length = 0;
            EXPECT_EQ(GetProfileString(path, u"s", u"key", u"", buffer, length), ERROR_SUCCESS);
            EXPECT_EQ(std::u16string(buffer, length), Text("a.ini") == after ? u"new" : u"old");
          },
  });
}

TEST_F(PlatformSweep, ReadsOfAProfileGiveTheValueOrTheDefaultWithACode) {
  const std::u16string path = WideFromUtf8(Path("a.ini"));
  Put("a.ini", "[s]\r\nkey=text\r\nnumber=7\r\n");
  ErrorCode codes[3] = {};
  std::int32_t number = 0;
  char16_t buffer[32] = {};
  std::uint32_t length = 0;
  ProfileSectionText section;
  (void)RunSweep({
      .name = "profile: read a text, a number and a section",
      .operation =
          [&] {
            codes[0] = GetProfileString(path, u"s", u"key", u"none", buffer, length);
            codes[1] = GetProfileInt(path, u"s", u"number", 5, number);
            codes[2] = GetProfileSection(path, u"s", std::span(buffer).subspan(8), section);
          },
      .judge =
          [&](const SweptFault* fault) {
            for (const ErrorCode rc : codes) ExpectCode(rc, fault);
            EXPECT_EQ(std::u16string(buffer, length), codes[0] == ERROR_SUCCESS ? u"text" : u"none");
            EXPECT_EQ(number, codes[1] == ERROR_SUCCESS ? 7 : 5);
            EXPECT_EQ(section.completeLines, codes[2] == ERROR_SUCCESS ? 2u : 0u);
          },
  });
}

TEST_F(PlatformSweep, TheKeyStoreChangesWholeOrTellsWhyNot) {
  ErrorCode opened = 0;
  std::vector<ErrorCode> codes;
  (void)RunSweep({
      .name = "key store: open, make, set, read, enumerate, save, delete, close",
      .prepare = [&] { Clear(); },
      .operation =
          [&] {
            codes.clear();
            opened = OpenRegistryStore(Path("registry.db"));
            if (opened != ERROR_SUCCESS) return;
            RegistryKey key;
            codes.push_back(CreateKey(Hive::kLocalMachine, u"SOFTWARE\\A\\B", KEY_ALL_ACCESS, key));
            codes.push_back(SetString(key, u"text", u"value"));
            codes.push_back(SetDword(key, u"number", 7));
            std::u16string text;
            codes.push_back(ReadRegistryString(key, u"text", text));
            KeyInfo info;
            codes.push_back(QueryInfoKey(key, info));
            codes.push_back(SaveKey(key, Path("saved.json")));
            codes.push_back(DeleteValue(key, u"number"));
            codes.push_back(key.Close());
            codes.push_back(DeleteTree(Hive::kLocalMachine, u"SOFTWARE\\A"));
            codes.push_back(CloseRegistryStore());
          },
      .judge =
          [&](const SweptFault* fault) {
            const bool isTold = opened != ERROR_SUCCESS || std::any_of(codes.begin(), codes.end(), [](ErrorCode rc) {
                                  return rc != ERROR_SUCCESS;
                                });
            EXPECT_TRUE(fault != nullptr || !isTold);
            if (IsRegistryStoreOpen()) (void)CloseRegistryStore();
            // What is on disk is a store that works.
            std::string where;
            if (std::filesystem::exists(Path("registry.db"))) {
              EXPECT_EQ(CheckRegistryStore(Path("registry.db"), where), ERROR_SUCCESS) << where;
            }
            EXPECT_EQ(OpenRegistryStore(Path("registry.db")), ERROR_SUCCESS);
            RegistryKey key;
            // A look at what isn't there, and the close of a key that was only read, may fail unheard: all was done.
            EXPECT_TRUE(isTold || (std::filesystem::exists(Path("saved.json")) &&
                                   OpenKey(Hive::kLocalMachine, u"SOFTWARE\\A", KEY_READ, key) != ERROR_SUCCESS));
            EXPECT_EQ(CreateKey(Hive::kLocalMachine, u"SOFTWARE\\Next", KEY_ALL_ACCESS, key), ERROR_SUCCESS);
            EXPECT_EQ(SetString(key, u"text", u"value"), ERROR_SUCCESS);
            EXPECT_EQ(key.Close(), ERROR_SUCCESS);
            EXPECT_EQ(CloseRegistryStore(), ERROR_SUCCESS);
          },
  });
}

TEST_F(PlatformSweep, ACopyOfADamagedStoreIsWholeOrNone) {
  ErrorCode rc = 0;
  std::string copy;
  const std::string damaged(100000, 'x');
  (void)RunSweep({
      .name = "copy of a damaged key store",
      .prepare =
          [&] {
            Clear();
            Put("registry.db", damaged);
            copy.clear();
          },
      .operation = [&] { rc = KeepDamagedCopy(Path("registry.db"), copy); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            EXPECT_EQ(Text("registry.db"), damaged);
            EXPECT_EQ(Now().size(), rc == ERROR_SUCCESS ? 2u : 1u) << "a part of a copy is left";
            for (const auto& [name, text] : Now()) EXPECT_EQ(text, damaged) << name;
          },
  });
}

TEST_F(PlatformSweep, ADatabaseHoldsTheOldRowsOrTheNewOnes) {
  ErrorCode rc = 0;
  const auto count = [&](std::int64_t& rows) {
    Database database;
    ErrorCode code = database.Open(Path("a.db"), Database::Access::kRead);
    Statement statement;
    bool isRow = false;
    if (code == ERROR_SUCCESS) code = statement.Prepare(database, "SELECT count(*) FROM t");
    if (code == ERROR_SUCCESS) code = statement.Step(isRow);
    if (isRow) rows = statement.Int(0);
    return code;
  };
  (void)RunSweep({
      .name = "database: open, check, two rows in a transaction",
      .prepare =
          [&] {
            Clear();
            Database database;
            ASSERT_EQ(database.Open(Path("a.db"), Database::Access::kReadWrite), ERROR_SUCCESS);
            ASSERT_EQ(database.Run("CREATE TABLE t(x)"), ERROR_SUCCESS);
          },
      .operation =
          [&] {
            Database database;
            rc = database.Open(Path("a.db"), Database::Access::kReadWrite);
            if (rc == ERROR_SUCCESS) rc = database.Check();
            if (rc == ERROR_SUCCESS) rc = database.Run("BEGIN");
            if (rc != ERROR_SUCCESS) return;
            Statement insert;
            rc = insert.Prepare(database, "INSERT INTO t VALUES(?)");
            for (std::int64_t i = 0; i < 2 && rc == ERROR_SUCCESS; ++i) {
              insert.Bind(0, i);
              rc = insert.Run();
            }
            if (rc == ERROR_SUCCESS) rc = database.Run("COMMIT");
          },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            std::int64_t rows = -1;
            EXPECT_EQ(count(rows), ERROR_SUCCESS);
            EXPECT_EQ(rows, rc == ERROR_SUCCESS ? 2 : 0);
          },
  });
}

TEST_F(PlatformSweep, AnExchangeOfKeysGivesThePlainTextOrACode) {
  ErrorCode rc = 0;
  std::string plain;
  (void)RunSweep({
      .name = "keys: make a pair, export, import, encrypt, decrypt",
      .prepare =
          [&] {
            CryptoProvider::ForgetContainer();
            plain.clear();
          },
      .operation =
          [&] {
            CryptoProvider provider;
            CryptoKey pair, peer;
            std::vector<std::uint8_t> blob(512), text(128);
            auto size = static_cast<std::uint32_t>(blob.size());
            std::uint32_t length = 5;
            std::copy_n("hello", 5, text.begin());
            rc = CryptoProvider::AcquireContext(kEnhancedProvider, PROV_RSA_FULL, CRYPT_NEWKEYSET, provider);
            if (rc == ERROR_SUCCESS) {
              rc = CryptoKey::Generate(provider, CALG_RSA_KEYX, (1024u << 16) | CRYPT_EXPORTABLE, pair);
            }
            if (rc == ERROR_SUCCESS) rc = pair.ExportPublic(blob, size);
            if (rc == ERROR_SUCCESS) rc = CryptoKey::Import(provider, std::span(blob).first(size), 0, peer);
            if (rc == ERROR_SUCCESS) rc = peer.Encrypt(true, text, length);
            if (rc == ERROR_SUCCESS) rc = pair.Decrypt(true, text, length);
            if (rc == ERROR_SUCCESS) plain.assign(text.begin(), text.begin() + length);
            if (peer && rc == ERROR_SUCCESS) rc = peer.Destroy();
          },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            if (rc == ERROR_SUCCESS) {
              EXPECT_EQ(plain, "hello");
            }
          },
  });
}

TEST_F(PlatformSweep, ADocumentIsReadOrItsFailureIsTold) {
  std::uint32_t result = 0;
  std::u16string text;
  (void)RunSweep({
      .name = "document: make, load, find, text",
      .prepare =
          [&] {
            result = 0;
            text.clear();
          },
      .operation =
          [&] {
            result = CoInitialize();
            if (result != 0) return;
            XmlDocument document;
            result = XmlDocument::Create(u"MSXML.DOMDocument", document);
            try {
              XmlElement element;
              if (result == 0 && !document.Load(u"<a><b>text</b></a>")) result = kXmlFailed;
              if (result == 0 && !document.FindFirst(u"b", element)) result = kXmlFailed;
              if (result == 0) result = element.Text(text);
            } catch (const XmlError& error) {
              result = error.result();
            }
            CoUninitialize();
          },
      .judge =
          [&](const SweptFault* fault) {
            EXPECT_EQ(result == 0, text == u"text");
            EXPECT_TRUE(result == 0 || fault != nullptr);
          },
  });
}

TEST_F(PlatformSweep, AFileOfCredentialsIsWholeOrNone) {
  ErrorCode rc = 0;
  (void)RunSweep({
      .name = "file of credentials",
      .prepare = [&] { Clear(); },
      .operation = [&] { rc = MakeCredentialsFile(Path("nodes.key"), "CLUSTER", "qxsvc"); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            EXPECT_EQ(Now().size(), rc == ERROR_SUCCESS ? 1u : 0u);
          },
  });
}

TEST_F(PlatformSweep, TheHostsFactsComeOrTheirFailureIsTold) {
  ErrorCode codes[4] = {};
  std::u16string user, machine, program;
  std::string name;
  (void)RunSweep({
      .name = "user, machine, program, absolute name",
      .prepare =
          [&] {
            user = machine = program = u"";
            name = "a";
          },
      .operation =
          [&] {
            codes[0] = UserName(user);
            codes[1] = MachineName(machine);
            codes[2] = ProgramFilePath(program);
            codes[3] = AbsoluteName(name);
          },
      .judge =
          [&](const SweptFault* fault) {
            for (const ErrorCode rc : codes) ExpectCode(rc, fault);
            EXPECT_EQ(codes[0] == ERROR_SUCCESS, !user.empty());
            EXPECT_EQ(codes[1] == ERROR_SUCCESS, !machine.empty());
            EXPECT_EQ(codes[2] == ERROR_SUCCESS, !program.empty());
            EXPECT_EQ(codes[3] == ERROR_SUCCESS, name.starts_with('/'));
          },
  });
}

TEST_F(PlatformSweep, TheFilesOfAnInstallationAreWrittenAndRemovedOrTheFailedOneIsNamed) {
  ServerInstallation installation;
  installation.destination = Path("host");
  installation.service = "Sample";
  installation.description = "A sample";
  installation.command = {"/usr/bin/sample"};
  installation.stateDirectory = "/var/lib/sample";
  installation.busName = "com.example.Sample";
  installation.group = "sample";
  installation.fencedPort = 4888;
  ErrorCode rc = 0;
  std::string failed;
  Files whole;
  (void)RunSweep({
      .name = "files of the host: install",
      .prepare =
          [&] {
            Clear();
            failed.clear();
          },
      .operation = [&] { rc = InstallFiles(installation, failed); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            EXPECT_EQ(rc == ERROR_SUCCESS, failed.empty());
            if (fault == nullptr) whole = Now();
            if (rc == ERROR_SUCCESS) {
              EXPECT_EQ(Now(), whole);
            }
            // Again, all is there.
            EXPECT_EQ(InstallFiles(installation, failed), ERROR_SUCCESS);
            EXPECT_EQ(Now(), whole);
          },
  });
  (void)RunSweep({
      .name = "files of the host: remove",
      .prepare =
          [&] {
            Clear();
            ASSERT_EQ(InstallFiles(installation, failed), ERROR_SUCCESS);
            failed.clear();
          },
      .operation = [&] { rc = RemoveFiles(installation, failed); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            EXPECT_EQ(rc == ERROR_SUCCESS, failed.empty());
            for (const auto& [name, text] : Now()) EXPECT_EQ(text, whole.at(name));
            EXPECT_TRUE(Now().empty() || rc != ERROR_SUCCESS);
            EXPECT_EQ(RemoveFiles(installation, failed), ERROR_SUCCESS);
            EXPECT_TRUE(Now().empty());
          },
  });
  (void)RunSweep({
      .name = "files of the host: account",
      .prepare =
          [&] {
            Clear();
            ASSERT_EQ(InstallFiles(installation, failed), ERROR_SUCCESS);
            failed.clear();
          },
      .operation = [&] { rc = InstallAccount(installation, "nobody", failed); },
      .judge =
          [&](const SweptFault* fault) {
            ExpectCode(rc, fault);
            EXPECT_EQ(rc == ERROR_SUCCESS, failed.empty());
            if (rc == ERROR_SUCCESS) {
              EXPECT_EQ(InstalledAccount(installation), "nobody");
            }
            EXPECT_EQ(InstallAccount(installation, "nobody", failed), ERROR_SUCCESS);
            EXPECT_EQ(InstalledAccount(installation), "nobody");
          },
  });
}

}  // namespace
}  // namespace platform
