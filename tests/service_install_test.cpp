// What registering leaves on a host: files and registry entries against golden ones, each file as its reader takes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <pwd.h>

#include <cstring>
#include <map>

#include "common/service_install.h"
#include "platform/file.h"
#include "platform/registry.h"
#include "platform/testing/judges_memory.h"
#include "platform/testing/temporary_folder.h"
#include "tests/running_service.h"

namespace qx::testing {
namespace {

namespace fs = std::filesystem;
using platform::ERROR_SUCCESS;
using ::testing::HasSubstr;

// The tree of a golden case below tests/data/install; written anew with QX_WRITE_GOLDEN set.
std::string GoldenFolder() { return test_paths::Data() + "/install/"; }

using Tree = std::map<std::string, std::string>;  // names below the folder, and contents

Tree ReadTree(const std::string& folder) {
  Tree tree;
  if (!fs::exists(folder)) return tree;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().string().substr(folder.size());
    if (entry.is_directory()) continue;
    tree[name] = entry.is_symlink() ? "-> " + fs::read_symlink(entry.path()).string()
                                    : RunningService::ReadFile(entry.path());
  }
  return tree;
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

void ExpectGolden(const std::string& name, const Tree& tree) {
  const std::string folder = GoldenFolder() + name;
  if (std::getenv("QX_WRITE_GOLDEN") != nullptr) {
    fs::remove_all(folder);
    for (const auto& [file, contents] : tree) {
      fs::create_directories(fs::path(folder + file).parent_path());
      std::ofstream(folder + file, std::ios::binary) << contents;
    }
  }
  const Tree golden = ReadTree(folder);
  ASSERT_FALSE(golden.empty()) << folder;
  std::vector<std::string> names, expectedNames;
  for (const auto& [file, contents] : tree) names.push_back(file);
  for (const auto& [file, contents] : golden) expectedNames.push_back(file);
  EXPECT_EQ(names, expectedNames);
  for (const auto& [file, contents] : golden) {
    const auto at = tree.find(file);
    if (at != tree.end()) {
      EXPECT_EQ(at->second, contents) << file;
    }
  }
}

std::string Shown(std::uint32_t type, const std::vector<std::byte>& data) {
  if (type == platform::REG_DWORD && data.size() == 4) {
    std::uint32_t number = 0;
    std::memcpy(&number, data.data(), sizeof number);
    return "dword " + std::to_string(number);
  }
  std::u16string text(data.size() / 2, u'\0');
  std::memcpy(text.data(), data.data(), text.size() * 2);
  while (!text.empty() && text.back() == u'\0') text.pop_back();
  return (type == platform::REG_SZ ? "text " : "type " + std::to_string(type) + " ") + platform::Utf8FromWide(text);
}

// A line for each value, for each key without one its name, in order of names.
void DumpKey(platform::Hive hive, const std::string& shown, const std::u16string& path, std::string& out) {
  platform::RegistryKey key;
  ASSERT_EQ(platform::OpenKey(hive, path, platform::KEY_READ, key), ERROR_SUCCESS) << shown;
  std::u16string name;
  std::uint32_t type = 0;
  std::vector<std::byte> data;
  std::uint32_t values = 0;
  for (; platform::EnumValue(key, values, name, type, data) == ERROR_SUCCESS; ++values) {
    out += shown + ": " + (name.empty() ? "(default)" : platform::Utf8FromWide(name)) + " = " + Shown(type, data) + "\n";
  }
  std::vector<std::u16string> inside;
  for (std::uint32_t i = 0; platform::EnumKey(key, i, name) == ERROR_SUCCESS; ++i) inside.push_back(name);
  if (values == 0 && inside.empty()) out += shown + ":\n";
  (void)key.Close();
  for (const std::u16string& sub : inside) {
    DumpKey(hive, shown + "\\" + platform::Utf8FromWide(sub), path.empty() ? sub : path + u"\\" + sub, out);
  }
}

class Installation : public ::testing::Test {
 protected:
  [[nodiscard]] std::string Host() const { return service.Jobs() + "/host"; }
  static std::string ProgramPath() { return fs::canonical(test_paths::Programs() + "/QxSchedService").string(); }
  [[nodiscard]] std::string Neutral(std::string text) const {
    text = Replaced(std::move(text), ProgramPath(), "@PROGRAM@");
    return Replaced(std::move(text), service.Root(), "@STATE@");
  }
  [[nodiscard]] Tree HostTree() const {
    Tree tree = ReadTree(Host());
    for (auto& [name, contents] : tree) contents = Neutral(contents);
    return tree;
  }
  std::string Registry() {
    std::string dump;
    EXPECT_EQ(platform::OpenRegistryStore(service.Root() + "/registry.db"), ERROR_SUCCESS);
    DumpKey(platform::Hive::kClassesRoot, "HKCR", u"", dump);
    DumpKey(platform::Hive::kLocalMachine, "HKLM", u"", dump);
    EXPECT_EQ(platform::CloseRegistryStore(), ERROR_SUCCESS);
    return Neutral(dump);
  }
  RunningService service;
};

TEST_F(Installation, AsAServiceItLeavesTheGoldenFilesAndEntries) {
  ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  Tree tree = HostTree();
  tree["/registry"] = Registry();
  ExpectGolden("service", tree);
}

TEST_F(Installation, AsAPlainServerItLeavesTheGoldenFilesAndEntries) {
  for (const char* word : {"-RegServer", "/regserver", "-REGSERVER"}) {
    ASSERT_EQ(service.Run({word, "--destdir", Host()}), 0) << service.Output();
    Tree tree = HostTree();
    tree["/registry"] = Registry();
    ExpectGolden("server", tree);
    fs::remove_all(Host());
    fs::remove_all(service.Root());
  }
}

TEST_F(Installation, UninstallingTakesFilesAndEntriesAway) {
  ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  ASSERT_EQ(service.Run({"-UnregServer", "--destdir", Host()}), 0) << service.Output();
  Tree tree = HostTree();
  tree["/registry"] = Registry();
  ExpectGolden("uninstalled", tree);
  EXPECT_EQ(service.Run({"-UnregServer", "--destdir", Host()}), 0) << service.Output();
}

TEST_F(Installation, WithoutADestinationAStateDirectoryOfOnesOwnLeavesTheHostAlone) {
  ASSERT_EQ(service.Run({"-Service"}), 0) << service.Output();
  EXPECT_EQ(service.Output(), "");
  EXPECT_FALSE(fs::exists("/usr/lib/systemd/system/QxSchedService.service"));
}

TEST_F(Installation, TheConfiguredAccountGoesFromTheRecordToTheUnitAndTheBus) {
  ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  const std::string output = service.Jobs() + "/configured";
  const auto configure = [&](const std::string& account) {
    Child child(test_paths::Programs() + "/qxsched",
                {"--root", service.Root(), "config", "set", "account", account, "--destdir", Host()}, output,
                {"PATH=/usr/bin:/bin", "HOME=/nonexistent"});
    return child.Wait();
  };
  ASSERT_EQ(configure("daemon"), 0) << RunningService::ReadFile(output);
  Tree tree = HostTree();
  EXPECT_EQ(tree["/etc/systemd/system/QxSchedService.service.d/account.conf"], "[Service]\nUser=daemon\n");
  EXPECT_THAT(tree["/etc/dbus-1/system.d/com.korvane.QxSched1-account.conf"],
              HasSubstr("<policy user=\"daemon\">\n    <allow own=\"com.korvane.QxSched1\"/>"));
  EXPECT_THAT(Registry(), HasSubstr("ObjectName = text daemon\n"));
  ASSERT_EQ(configure("LocalSystem"), 0) << RunningService::ReadFile(output);
  tree = HostTree();
  tree["/registry"] = Registry();
  ExpectGolden("service", tree);
}

TEST_F(Installation, APackageRegistersWithoutTheFilesThatItBrings) {
  ASSERT_EQ(service.Run({"-Service", "--registry-only", "--destdir", Host()}), 0) << service.Output();
  EXPECT_FALSE(fs::exists(Host()));
  EXPECT_THAT(Registry(), HasSubstr("ObjectName = text LocalSystem\n"));
  ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  const Tree files = HostTree();
  ASSERT_EQ(service.Run({"-UnregServer", "--registry-only", "--destdir", Host()}), 0) << service.Output();
  EXPECT_EQ(HostTree(), files);
  Tree registry;
  registry["/registry"] = Registry();
  ExpectGolden("uninstalled", registry);
}

TEST_F(Installation, RegisteredAnewTheServiceStaysWithTheAccountOfItsUnit) {
  ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  Child child(test_paths::Programs() + "/qxsched",
              {"--root", service.Root(), "config", "set", "account", "daemon", "--destdir", Host()},
              service.Jobs() + "/configured", {"PATH=/usr/bin:/bin", "HOME=/nonexistent"});
  ASSERT_EQ(child.Wait(), 0) << RunningService::ReadFile(service.Jobs() + "/configured");
  ASSERT_EQ(service.Run({"-UnregServer", "--registry-only", "--destdir", Host()}), 0) << service.Output();
  ASSERT_THAT(Registry(), ::testing::Not(HasSubstr("ObjectName")));
  ASSERT_EQ(service.Run({"-Service", "--registry-only", "--destdir", Host()}), 0) << service.Output();
  EXPECT_THAT(Registry(), HasSubstr("ObjectName = text daemon\n"));
}

TEST_F(Installation, ForAPackageOnlyTheFilesOfTheHostAreWritten) {
  const std::string folder = service.Jobs() + "/package";
  fs::create_directories(folder + "/usr/bin");
  fs::copy_file(ProgramPath(), folder + "/usr/bin/QxSchedService");
  Child packager(folder + "/usr/bin/QxSchedService", {"-Service", "--destdir", folder}, service.Jobs() + "/output",
                 {"HOME=" + folder + "/home", "PATH=/usr/bin:/bin"});
  ASSERT_EQ(packager.Wait(), 0) << RunningService::ReadFile(service.Jobs() + "/output");
  fs::remove(folder + "/usr/bin/QxSchedService");
  ExpectGolden("package", ReadTree(folder));
}

TEST_F(Installation, ADestinationThatCanNotBeWrittenIsToldWithTheFile) {
  std::ofstream(service.Jobs() + "/file") << "x";
  EXPECT_EQ(service.Run({"-Service", "--destdir", service.Jobs() + "/file"}), 1);
  EXPECT_THAT(service.Output(), HasSubstr("Korvane Scheduler Service: Couldn't write " + service.Jobs() +
                                          "/file/usr/lib/systemd/system/QxSchedService.service, error "));
}

// What systemd says about the installed unit with its drop-ins: exit code and words.
class VerifiedUnit : public Installation {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(kAnalyze)) << "systemd-analyze isn't installed (Debian package systemd)";
    ASSERT_EQ(service.Run({"-Service", "--destdir", Host()}), 0) << service.Output();
  }
  [[nodiscard]] std::string Verify() const {
    const std::string output = service.Jobs() + "/verified";
    // The page that the unit names belongs to the packages.
    Child child(kAnalyze, {"verify", "--man=no", Unit()}, output, {"PATH=/usr/bin:/bin", "HOME=/root"});
    const int code = child.Wait();
    return std::to_string(code) + ": " + RunningService::ReadFile(output);
  }
  [[nodiscard]] std::string Unit() const { return Host() + "/usr/lib/systemd/system/QxSchedService.service"; }
  static constexpr const char* kAnalyze = "/usr/bin/systemd-analyze";
};

TEST_F(VerifiedUnit, IsOneThatSystemdTakesWithoutAWord) {
  EXPECT_EQ(Verify(), "0: ");
  // The check can fail.
  std::ofstream(Unit(), std::ios::app) << "[Service]\nTasksMaximum=1\n";
  EXPECT_THAT(Verify(), HasSubstr("TasksMaximum"));
}

TEST_F(VerifiedUnit, IsTakenWithTheStrictProfileToo) {
  const std::string dropIn = Unit() + ".d/50-strict.conf";
  fs::copy_file(test_paths::Source() + "/packaging/examples/strict.conf", dropIn);
  EXPECT_EQ(Verify(), "0: ");
  std::ofstream(dropIn, std::ios::app) << "ProtectEverything=yes\n";
  EXPECT_THAT(Verify(), HasSubstr("ProtectEverything"));
}

// --- the start on demand, by a bus daemon that reads the installed file ---

TEST(BusActivation, TheFirstCallStartsTheServiceAndItEndsWithItsLastClient) {
  const platform::TemporaryFolder temporary("qx-activation");
  const std::string& folder = temporary.Path();
  const std::string host = folder + "/host";
  std::ofstream(folder + "/bus.conf")
      << "<busconfig>\n  <type>session</type>\n  <listen>unix:tmpdir=/tmp</listen>\n  <servicedir>" << host
      << "/usr/share/dbus-1/system-services</servicedir>\n  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\"/>\n    <allow receive_sender=\"*\"/>\n    <allow own=\"*\"/>\n"
         "  </policy>\n</busconfig>\n";
  // Registered first: the daemon looks for the files when it starts.
  fs::create_directories(host + "/usr/share/dbus-1/system-services");
  {
    RunningService service(folder + "/bus.conf");
    ASSERT_FALSE(service.Bus().Address().empty());
    ASSERT_EQ(service.Run({"-RegServer", "--destdir", host}), 0) << service.Output();
    // The installed file names the system bus: here that is this one.
    platform::BusConnection connection;
    ASSERT_EQ(connection.Open(service.Bus().ForClients()), ERROR_SUCCESS);
    const auto ask = [&](const char* member, const std::function<void(platform::MessageWriter&)>& write) {
      platform::MessageWriter call;
      platform::MessageReader reply;
      platform::BusError error;
      ASSERT_EQ(connection.NewCall("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member, call),
                ERROR_SUCCESS);
      if (write) write(call);
      ASSERT_EQ(connection.Call(std::move(call), reply, error), ERROR_SUCCESS) << error.text;
    };
    ask("UpdateActivationEnvironment", [&](platform::MessageWriter& call) {
      call.OpenArray("{ss}");
      for (const auto& [name, value] : {std::pair<std::string, std::string>("DBUS_SYSTEM_BUS_ADDRESS", service.Bus().Address()),
                                        std::pair<std::string, std::string>("TZ", "UTC")}) {
        call.OpenDictEntry("ss");
        call.AppendString(name);
        call.AppendString(value);
        call.Close();
      }
      call.Close();
    });
    ask("ReloadConfig", {});  // the file came behind the daemon's start

    SchedulerClient client;
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    std::uint32_t process = 1;
    ASSERT_EQ(client.ServiceProcess(process), 0u);
    EXPECT_EQ(process, 0u) << "nobody asked for it yet";
    ScheduleGuid id;
    ASSERT_EQ(client.CreateSchedule(service.Job("nightly", platform::NowSeconds() + 6 * 3600), id), 0u)
        << client.LastError().name << " " << client.LastError().text;
    ASSERT_EQ(client.ServiceProcess(process), 0u);
    ASSERT_NE(process, 0u);
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(process), 0));
    ASSERT_GE(descriptor, 0);
    client.Disconnect();
    pollfd ended = {descriptor, POLLIN, 0};
    EXPECT_EQ(poll(&ended, 1, static_cast<int>(kPatience)), 1) << "a plain server ends with its last client";
    close(descriptor);

    // And the next call starts it anew, with what it had.
    ASSERT_NO_FATAL_FAILURE(service.Connect(client));
    ScheduleInfo info;
    EXPECT_EQ(client.GetScheduleInfo(id, info), 0u) << client.LastError().text;
    ASSERT_EQ(info.size(), 1u);
    EXPECT_TRUE(info.records()[0].bstrName == u"nightly");
    ASSERT_EQ(client.ServiceProcess(process), 0u);
    const int second = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(process), 0));
    client.Disconnect();
    pollfd over = {second, POLLIN, 0};
    EXPECT_EQ(poll(&over, 1, static_cast<int>(kPatience)), 1);
    close(second);
  }
}

// --- the policy, on a bus daemon that allows nothing else ---

constexpr const char* kBusHead = R"(<busconfig>
  <type>system</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
)";

// The name of the error that somebody's call is answered with, or "done"; in a process of its own.
std::string CallAs(uid_t user, gid_t group, const platform::BusAddress& address) {
  int answer[2];
  if (pipe(answer) != 0) return "no pipe";
  const pid_t process = fork();
  if (process == 0) {
    std::string text = "not connected";
    platform::BusConnection connection;
    if (setgroups(1, &group) == 0 && setgid(group) == 0 && setuid(user) == 0 &&
        connection.Open(address) == ERROR_SUCCESS) {
      platform::MessageWriter call;
      platform::MessageReader reply;
      platform::BusError error;
      (void)connection.NewCall(kBusName, kBusPath, kBusServiceInterface, "Refresh", call);
      text = connection.Call(std::move(call), reply, error) == ERROR_SUCCESS ? "done" : error.name;
    }
    (void)!write(answer[1], text.data(), text.size());
    _exit(0);
  }
  close(answer[1]);
  char text[256] = "";
  (void)!read(answer[0], text, sizeof text - 1);
  close(answer[0]);
  (void)waitpid(process, nullptr, 0);
  return text;
}

TEST(BusPolicy, LetsRootAndTheGroupCallAndNobodyElse) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can act for others: POLICY NOT CHECKED";
  const passwd* const nobody = getpwnam("nobody");
  const ::group* const members = getgrnam("daemon");  // stands for the group of clients, which this host may lack
  ASSERT_NE(nobody, nullptr);
  ASSERT_NE(members, nullptr);
  const uid_t user = nobody->pw_uid;
  const gid_t own = nobody->pw_gid;
  const platform::TemporaryFolder temporary("qx-policy");
  const std::string& folder = temporary.Path();
  fs::permissions(folder, fs::perms(0755));
  platform::ServerInstallation installation = qx::Installation("/", "/usr/bin/QxSchedService", "/var/lib/qxsvc", true);
  installation.group = "daemon";
  for (const platform::InstalledFile& file : platform::FilesOf(installation)) {
    if (file.name.find("/system.d/") != std::string::npos) std::ofstream(folder + "/policy.conf") << file.contents;
  }
  std::ofstream(folder + "/bus.conf") << kBusHead << "  <include>" << folder << "/policy.conf</include>\n</busconfig>\n";
  {
    RunningService service(folder + "/bus.conf");
    ASSERT_FALSE(service.Bus().Address().empty());
    const std::string socket = service.Bus().Address().substr(std::string("unix:path=").size());
    fs::permissions(fs::path(socket).parent_path(), fs::perms(0755));
    ASSERT_NO_FATAL_FAILURE(service.Register());
    ASSERT_NO_FATAL_FAILURE(service.Start());  // as root it may own the name
    EXPECT_EQ(CallAs(0, 0, service.Bus().ForClients()), "done");
    EXPECT_EQ(CallAs(user, members->gr_gid, service.Bus().ForClients()), "done");
    EXPECT_EQ(CallAs(user, own, service.Bus().ForClients()), platform::kBusErrorAccessDenied);
    // A message above the daemon's own limit of 32 MiB passes. The bus library asks for its memory anew with each part
    // that comes, which a sanitizer copies each time: the time grows with the square of the size.
    platform::BusConnection connection;
    ASSERT_EQ(connection.Open(service.Bus().ForClients()), ERROR_SUCCESS);
    platform::MessageWriter call;
    platform::MessageReader reply;
    platform::BusError error;
    ASSERT_EQ(connection.NewCall(kBusName, kBusPath, kBusServiceInterface, "UpdateList", call), ERROR_SUCCESS);
    call.AppendInt32(0);
    call.AppendString(std::string((platform::kHasSanitizedMemory ? std::size_t{33} : std::size_t{60}) << 20, 'x'));
    EXPECT_EQ(connection.Call(std::move(call), reply, error), ERROR_SUCCESS) << error.text;
  }
}

}  // namespace
}  // namespace qx::testing
