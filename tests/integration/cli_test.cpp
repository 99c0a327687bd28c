// The scpkit program end to end against the loopback sshd: the forms of its
// arguments, its exit statuses and one-line errors, signals and what they
// leave on disk, its lists, the terminal and the user's ssh setup.
#include <gtest/gtest.h>

#include <dirent.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <algorithm>
#include <csignal>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

using Args = std::vector<std::string>;
const std::string kProgram = SCPKIT_CLI_PATH;

// What a run printed, when it succeeded without a word on standard error
// (not a terminal, so no progress bar either); else why it did not.
std::string outputOf(const ChildResult& r) {
    if (r.exitStatus == 0 && r.err.empty()) return r.out;
    return "<exit " + std::to_string(r.exitStatus) + ": " + r.err + ">";
}

Args words(const std::string& line) {
    Args out;
    std::istringstream in(line);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// Names in a directory in the order the file system lists them.
std::vector<std::string> listingOrder(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (std::string(".") != e->d_name && std::string("..") != e->d_name)
            names.push_back(e->d_name);
    if (d) closedir(d);
    return names;
}

class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sshd = &SshdFixture::shared();
        if (!sshd->ok()) GTEST_SKIP() << "no sshd: " << sshd->error();
        dir = sshd->makeScratchDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        local = dir + "/local";
        rdir = dir + "/remote";
        for (const std::string& d : {dir + "/home", local, rdir}) makeDir(d);
    }
    std::string remote(const std::string& p) const { return sshd->user() + "@127.0.0.1:" + p; }
    // No agent and a private HOME. The program finds ~/.ssh through the
    // password database, as ssh does, so command() names the key, the known
    // hosts and --no-ssh-config: those keep the tester's own files out.
    Args environment(Args extra = {}) const {
        extra.insert(extra.end(), {"HOME=" + dir + "/home", "SSH_AUTH_SOCK", "SSH_AGENT_PID"});
        return extra;
    }
    // The fixture's server, key and known hosts, then `line`, in which L/ and
    // R/ stand for the local and the remote directory (options given later win).
    Args command(const std::string& line) const {
        Args all = words("-P " + std::to_string(sshd->port()) + " -i " + sshd->clientKeyPath() +
                         " --known-hosts " + sshd->knownHostsPath() + " --no-ssh-config");
        for (std::string w : words(line)) {
            if (w.rfind("L/", 0) == 0) w = local + w.substr(1);
            if (w.rfind("R/", 0) == 0) w = remote(rdir + w.substr(1));
            all.push_back(w);
        }
        return all;
    }
    ChildResult scpkit(const std::string& line, const std::string& input = "") {
        return runChild(kProgram, command(line), environment(), input);
    }

    SshdFixture* sshd = nullptr;
    std::string dir, local, rdir;
};

TEST_F(CliTest, EachArgumentFormPutsTheBytesWhereScpWould) {
    std::string bytes = randomBytes(1 << 20, 1) + std::string("\0\r\n\x1b[2J", 7);
    writeFile(local + "/data.bin", bytes, -1, 0640);
    writeFile(local + "/a.txt", "a");
    writeFile(local + "/b.txt", "b");
    writeFile(rdir + "/dir/.hidden.txt", "h");
    makeDir(local + "/into");
    const struct {
        std::string line, input, landed, content;
    } steps[] = {{"-c aes128-ctr put L/data.bin R/copy.bin", "", rdir + "/copy.bin", bytes},
                 {"put L/data.bin R/", "", rdir + "/data.bin", bytes},
                 {"--connect-timeout 5 put L/a.txt L/b.txt R/dir", "", rdir + "/dir/b.txt", "b"},
                 {"put L/data.bin R/dir", "", rdir + "/dir/data.bin", bytes},  // a dir without '/'
                 {"put - R/piped.bin", bytes, rdir + "/piped.bin", bytes},
                 {"-l 1000000 get R/piped.bin L/back.bin", "", local + "/back.bin", bytes},
                 {"get R/copy.bin L/", "", local + "/copy.bin", bytes},
                 {"get R/dir/a.txt R/dir/b.txt L/into", "", local + "/into/a.txt", "a"},
                 {"get R/dir/*.t?t L/into", "", local + "/into/b.txt", "b"},
                 {"put --chmod 0600 L/a.txt R/c", "", rdir + "/c", "a"}};
    for (const auto& s : steps) {
        SCOPED_TRACE(s.line);
        if (s.line.find("*.t") != std::string::npos) unlink((local + "/into/b.txt").c_str());
        EXPECT_EQ(outputOf(scpkit(s.line, s.input)), "");
        EXPECT_TRUE(readFile(s.landed) == s.content);
    }
    // The wildcard took b.txt and a.txt again, not .hidden.txt, not data.bin.
    EXPECT_EQ(listTree(local + "/into"), (std::vector<std::string>{"a.txt", "b.txt"}));
    EXPECT_TRUE(outputOf(scpkit("get R/piped.bin -")) == bytes);
    EXPECT_EQ(fileMode(rdir + "/copy.bin"), 0640u);  // the mode travels
    EXPECT_EQ(fileMode(rdir + "/c"), 0600u);

    // A link keeps pointing at the file it named, which takes the new content;
    // a replaced file keeps its owner; a fifo is written through, mode kept.
    symlink((local + "/back.bin").c_str(), (local + "/link").c_str());
    chown((local + "/back.bin").c_str(), 65534, 65534);
    std::string fifo = local + "/fifo", fromFifo;
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    chmod(fifo.c_str(), 0620);
    std::thread reader([&] { fromFifo = readFile(fifo); });
    EXPECT_EQ(outputOf(scpkit("get R/dir/a.txt L/link")), "");
    EXPECT_EQ(outputOf(scpkit("get R/copy.bin L/fifo")), "");
    reader.join();
    EXPECT_TRUE(fromFifo == bytes);
    struct stat st {};
    EXPECT_TRUE(lstat(fifo.c_str(), &st) == 0 && S_ISFIFO(st.st_mode) &&
                (st.st_mode & 0777) == 0620);
    EXPECT_TRUE(lstat((local + "/link").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_TRUE(stat((local + "/back.bin").c_str(), &st) == 0 && st.st_uid == 65534u);
    EXPECT_EQ(readFile(local + "/back.bin"), "a");
}

TEST_F(CliTest, PushAndPullListExactlyTheFilesTheyCopied) {
    const std::vector<std::string> all = {"a.txt", "sub/b.txt", "sub/deep/c.bin", "with space.txt"};
    for (const std::string& f : all)
        writeFile(local + "/src/" + f, randomBytes(70000, f[0]), 1000000000);
    makeDir(local + "/src/empty");
    const std::string src = local + "/src", dst = rdir + "/tree";

    std::string push = outputOf(scpkit("push L/src R/tree"));  // R/tree is made first
    EXPECT_EQ(sortedLines(push), all) << push;
    EXPECT_EQ(snapshotTree(dst), snapshotTree(src));
    writeFile(src + "/sub/b.txt", "second edition\n");
    EXPECT_EQ(outputOf(scpkit("push --mode newer L/src R/tree")), "sub/b.txt\n");
    EXPECT_EQ(outputOf(scpkit("push --mode newer L/src R/tree")), "");  // times kept
    EXPECT_EQ(readFile(dst + "/sub/b.txt"), "second edition\n");

    std::string pull = outputOf(scpkit("pull R/tree L/pulled"));
    EXPECT_EQ(sortedLines(pull), all) << pull;
    EXPECT_EQ(snapshotTree(local + "/pulled"), snapshotTree(dst));
    EXPECT_EQ(outputOf(scpkit("pull --mode missing R/tree L/pulled")), "");
    EXPECT_EQ(outputOf(scpkit("-q pull R/tree L/quiet")), "");
    // A dry run lists what a real one would copy, and copies and makes nothing.
    for (const char* dry : {"-n pull R/tree L/dry", "-n push --mode newer L/src R/none"})
        EXPECT_EQ(sortedLines(outputOf(scpkit(dry))), all) << dry;
    EXPECT_FALSE(pathExists(local + "/dry") || pathExists(rdir + "/none"));

    // Repeated filter options add up; each reaches its own property.
    const std::pair<std::string, Args> filters[] = {
        {"push --match *.txt --match *.bin --exclude a* --exclude-dir deep L/src",  // to "new dir"
         {"sub/b.txt", "with space.txt"}},
        // The remote root is a directory too: it must match.
        {"pull --match-dir tree --match-dir sub --exclude w* R/tree L/f2", {"a.txt", "sub/b.txt"}},
        {"pull --no-recurse R/tree L/f3", {"a.txt", "with space.txt"}}};
    for (const auto& [line, copied] : filters) {
        Args args = command(line);
        if (line[1] == 'u' && line[2] == 's') args.push_back(remote(rdir + "/new dir"));
        std::string listed = outputOf(runChild(kProgram, args, environment()));
        EXPECT_EQ(sortedLines(listed), copied) << listed;
    }
}

TEST_F(CliTest, FailuresExitWithTheirStatusAndSayWhyOnOneLine) {
    writeFile(local + "/f", "data");
    writeFile(local + "/precious", "precious");
    writeFile(rdir + "/x", "present");
    makeDir(rdir + "/d");
    makeDir(local + "/empty");
    // A loopback port bound but not listening: it refuses every connection.
    int refusing = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    bind(refusing, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(refusing, reinterpret_cast<sockaddr*>(&a), &len);
    const struct {
        std::string line;
        int status;
        std::string says;
        bool hint;  // after a library call: how to get the full log
    } cases[] = {
        {"-P " + std::to_string(ntohs(a.sin_port)) + " put L/f R/y", 3, "cannot connect", true},
        {"-c 3des-cbc put L/f R/y", 3, "cannot connect", true},
        {"get R/no\x1b[2Jsuch\x07\x1b[31m\xc2\x9b-f L/precious", 1,
         rdir + "/nosuch-f failed: no such file or directory on the server", true},
        {"get R/d L/precious", 1, "it is a directory on the server", true},
        {"get R/x L/no/dir/file", 1, "no such directory: " + local + "/no/dir", false},
        {"get R/d/*.txt L/", 1, "no file on the server matches", false},
        {"get R/nodir/*.txt L/", 1, "no such file or directory on the server", true},
        {"pull R/x L/p", 1, "it is a file on the server, not a directory", true},
        {"put L/absent R/y", 1, "not a readable file", false},
        {"put L/ R/y", 1, "push copies directories", false},
        {"put L/f R/missing/y", 1, "no such directory on the server: " + rdir + "/missing", true},
        {"--debug-log /nonexistent/log get R/x L/z", 2, "cannot write the debug log", false},
        {"--log L/log get R/gone L/precious", 1, "full log in", false},
        {"push --exclude sub/* --match *.o L/empty R/e", 0, "'sub/*' matches nothing", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ChildResult r = scpkit(c.line);
        EXPECT_EQ(r.exitStatus, c.status) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("scpkit: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("--log FILE") != std::string::npos, c.hint) << r.err;
        for (unsigned char ch : r.err)
            EXPECT_TRUE((ch >= 0x20 && ch != 0x7f) || ch == '\n') << r.err;
        std::string line = r.err.substr(0, r.err.find("Run 'scpkit --help'"));
        EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line";
    }
    close(refusing);
    EXPECT_EQ(readFile(local + "/precious"), "precious") << "a failed get keeps the old file";
    EXPECT_EQ(listTree(local), (Args{"empty", "f", "log", "precious"}));
    EXPECT_EQ(listTree(rdir), (Args{"d", "e", "x"}));
    std::string log = readFile(local + "/log");
    for (const char* text : {"DownloadFile:", "No such file or directory", "probeRemotePath"})
        EXPECT_NE(log.find(text), std::string::npos) << text << " in " << log;
    EXPECT_EQ(outputOf(scpkit("--log L/v.log --verbose-log get R/x L/x")), "");
    EXPECT_NE(readFile(local + "/v.log").find("fileSize: 7"), std::string::npos);
}

// Each run is stopped while a file far too big to finish is on its way.
TEST_F(CliTest, SignalsStopCleanlyAndLeaveNoPartialFile) {
    for (const std::string& d : {rdir + "/tree", local + "/src"}) {
        writeFile(d + "/huge.img", "");
        ASSERT_EQ(truncate((d + "/huge.img").c_str(), off_t(8) << 30), 0);  // takes no room
        // Small files the walk meets before the huge one are done and
        // listed first: there are some whatever order the file system keeps.
        for (int i = 0; listingOrder(d).front() == "huge.img"; ++i)
            writeFile(d + "/s" + std::to_string(i) + ".txt", "small");
    }
    writeFile(local + "/kept.img", "old");
    const struct {
        std::string line, partial;  // the file growing at the signal (- ends a prefix)
        int sig;
        bool lists;
    } cases[] = {{"get R/tree/huge.img L/kept.img", "L/.scpkit-partial-", SIGTERM, false},
                 {"pull R/tree L/pulled", "L/pulled/huge.img", SIGINT, true},
                 {"pull R/tree L/killed", "L/killed/huge.img", SIGKILL, true},
                 {"--progress pull R/tree L/barred", "L/barred/huge.img", SIGHUP, true},
                 {"push L/src R/pushed", "R/pushed/huge.img", SIGTERM, true},
                 {"put L/src/huge.img R/put.img", "R/put.img", SIGINT, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        std::string where = (c.partial[0] == 'L' ? local : rdir) + c.partial.substr(1);
        std::string in = where.substr(0, where.rfind('/')), partial = where;
        ChildProcess child;
        ASSERT_TRUE(child.start(kProgram, command(c.line), environment()));
        struct stat st {};
        for (int i = 0; i < 2000 && (stat(partial.c_str(), &st) != 0 || st.st_size == 0); ++i) {
            usleep(10000);  // at most 20 s
            for (const std::string& name : listingOrder(in))
                if (where.back() == '-' && name.rfind(where.substr(in.size() + 1), 0) == 0)
                    partial = in + "/" + name;
        }
        ASSERT_GT(st.st_size, 0) << "the transfer never started";
        Args done;  // complete before the signal
        for (const std::string& name : listingOrder(in))
            if (name[0] == 's' && name.find(".txt") != std::string::npos) done.push_back(name);
        std::sort(done.begin(), done.end());
        kill(child.pid(), c.sig);
        ChildResult r = child.finish(30000);
        bool killed = c.sig == SIGKILL;  // no cleanup: what was listed was listed at once
        EXPECT_EQ(r.exitStatus, killed ? -1 : 128 + c.sig) << r.err;
        EXPECT_EQ(r.err.find("interrupted") == std::string::npos, killed) << r.err;
        EXPECT_EQ(pathExists(partial), killed) << "the partial file was left behind";
        EXPECT_EQ(sortedLines(r.out), c.lists ? done : Args{}) << "only what was complete";
    }
    EXPECT_EQ(readFile(local + "/kept.img"), "old");
}

// Several channels at once: a piece's cost is fixed, so that the tree is
// cut whatever the machine's timing.
Args parallelEnv(Args extra = {}) {
    extra.push_back("SCPKIT_PIECE_COST=4");
    return extra;
}

// A tree of several directories, modes and times of its own, names a
// wildcard or a shell would misread; its files, sorted.
Args makeCuttableTree(const std::string& root) {
    Args files;
    const char* const dirs[] = {"d0", "d1", "d2", "d$3", "d'4"};
    for (int d = 0; d < 5; ++d) {
        for (int f = 0; f < 6; ++f) {
            std::string name = std::string(dirs[d]) + "/" +
                               (f == 0 ? "odd *[1] $x.bin" : "f" + std::to_string(f) + ".txt");
            writeFile(root + "/" + name, randomBytes(900 + 300 * f, d * 10 + f),
                      1000000000 + d * 60 + f, f % 3 == 0 ? 0600 : 0644);
            files.push_back(name);
        }
    }
    writeFile(root + "/d1/with space/deep.txt", "deep", 1100000000, 0755);
    writeFile(root + "/top.txt", "top", 1200000000);
    makeDir(root + "/d2/empty", 0750);
    chmod((root + "/d0").c_str(), 0700);
    files.insert(files.end(), {"d1/with space/deep.txt", "top.txt"});
    std::sort(files.begin(), files.end());
    return files;
}

TEST_F(CliTest, TreesCutIntoPiecesArriveAsOverOneChannel) {
    const std::string src = local + "/src", back = local + "/back", tree = rdir + "/tree";
    const Args all = makeCuttableTree(src);
    const Args changed = {"d$3/odd *[1] $x.bin", "d0/f1.txt"};  // sorted
    Args filtered;
    for (const std::string& f : all)
        if (f.find(".bin") == std::string::npos && f.rfind("d2/", 0) != 0) filtered.push_back(f);
    const struct {
        bool changeFirst;
        std::string line;
        const Args& listed;
        std::string copy, of;  // the copy that must equal the original afterwards
    } steps[] = {
        {false, "push L/src R/tree", all, tree, src},
        {false, "pull R/tree L/back", all, back, tree},
        {true, "push --mode newer L/src R/tree", changed, tree, src},
        {false, "pull --mode newer R/tree L/back", changed, back, tree},
        {false, "push --exclude *.bin --exclude-dir d2 L/src R/filtered", filtered, "", ""},
        {false, "-n pull --mode newer R/tree L/dry", all, "", ""},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.line);
        for (const std::string& f : s.changeFirst ? changed : Args())
            writeFile(src + "/" + f, f, 1300000000);
        std::string listed = outputOf(
            runChild(kProgram, command("-j 3 --log L/log " + s.line), environment(parallelEnv())));
        EXPECT_EQ(sortedLines(listed), s.listed) << listed;
        EXPECT_TRUE(s.copy.empty() || snapshotTree(s.copy) == snapshotTree(s.of));
    }
    EXPECT_EQ(listTree(rdir + "/filtered", true), filtered);
    EXPECT_FALSE(pathExists(local + "/dry"));
    std::string log = readFile(local + "/log");
    for (const char* call : {"SyncTreeUpload:", "SyncTreeDownload:"}) {
        size_t calls = 0;
        for (size_t at = 0; (at = log.find(call, at)) != std::string::npos; ++at) ++calls;
        EXPECT_GE(calls, 3 * 3u) << call << ": three runs each way, in pieces";
    }
}

// Pieces that the listing shows have nothing to copy are not started: in
// every mode and both directions a cut dry run lists what one channel's
// (the library deciding each file) does.
TEST_F(CliTest, SkippedPiecesLoseNoCopy) {
    const std::string src = local + "/src", tree = rdir + "/tree";
    makeCuttableTree(src);
    ASSERT_EQ(shell("cp -a " + src + " " + tree), 0);
    writeFile(src + "/d0/f4.txt", randomBytes(2100, 4), 1350000000);  // newer here
    writeFile(src + "/d1/f2.txt", "other size", 1000000062);          // same time
    writeFile(src + "/d2/new.txt", "new", 1200000000);                // missing there
    writeFile(tree + "/d'4/f3.txt", "newer there", 1400000000);
    // A link's own size and time say nothing of the file it leads to.
    writeFile(local + "/target", "linked, newer", 1500000000);
    ASSERT_EQ(symlink((local + "/target").c_str(), (tree + "/d2/link.txt").c_str()), 0);
    ASSERT_EQ(shell("touch -h -d @1000000000 '" + tree + "/d2/link.txt'"), 0);
    for (const char* mode : {"missing", "newer", "newer-existing", "size", "newer-or-size"}) {
        for (const char* line : {"push L/src R/tree", "pull R/tree L/src"}) {
            SCOPED_TRACE(std::string(mode) + ": " + line);
            auto listed = [&](const char* jobs) {
                std::string l = std::string("-n -j ") + jobs + " --mode " + mode + " " + line;
                return sortedLines(
                    outputOf(runChild(kProgram, command(l), environment(parallelEnv()))));
            };
            EXPECT_EQ(listed("4"), listed("1"));
        }
    }
    std::string synced = outputOf(runChild(kProgram, command("-j 4 --mode newer push L/src R/tree"),
                                           environment(parallelEnv())));
    EXPECT_EQ(sortedLines(synced), Args({"d0/f4.txt", "d2/new.txt"}));
    EXPECT_EQ(outputOf(runChild(kProgram, command("-j 4 --mode newer push L/src R/tree"),
                                environment(parallelEnv()))),
              "");
}

// OpenSSH refuses a fourth session on the connection: the run goes on with
// the channels it has.
TEST(CliSessionLimit, ARefusedChannelLeavesTheWorkToTheOthers) {
    ScratchDir root;
    SshdFixture sshd({"MaxSessions 3\n"});
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    const Args all = makeCuttableTree(root.file("src"));
    for (const std::string& line :
         {"push " + root.file("src") + " 127.0.0.1:" + root.file("up"),
          "pull 127.0.0.1:" + root.file("up") + " " + root.file("down")}) {
        Args args = words("-j 8 -P " + std::to_string(sshd.port()) + " -i " + sshd.clientKeyPath() +
                          " --known-hosts " + sshd.knownHostsPath() + " --no-ssh-config " + line);
        std::string listed = outputOf(
            runChild(kProgram, args, parallelEnv({"HOME=" + root.path(), "SSH_AUTH_SOCK"})));
        EXPECT_EQ(sortedLines(listed), all) << line;
    }
    EXPECT_EQ(snapshotTree(root.file("down")), snapshotTree(root.file("src")));
}

// Stopped while pieces copy: every channel stops, no partial file stays on
// either side, and the list names only files that are complete (for pull,
// exactly those).
TEST_F(CliTest, SignalsStopEveryPiece) {
    const std::string src = local + "/src", tree = rdir + "/tree";
    for (const char* d : {"/a", "/b", "/c"}) {
        for (int i = 0; i < 4; ++i) writeFile(src + d + "/s" + std::to_string(i), d);
        writeFile(src + d + "/huge.img", "");
        ASSERT_EQ(truncate((src + d + "/huge.img").c_str(), off_t(8) << 30), 0);
    }
    ASSERT_EQ(shell("cp -a " + src + " " + tree), 0);
    const std::pair<std::string, int> cases[] = {{"pull R/tree L/pulled", SIGINT},
                                                 {"push L/src R/pushed", SIGTERM}};
    for (const auto& [line, sig] : cases) {
        SCOPED_TRACE(line);
        std::string target = line.rfind("pull", 0) == 0 ? local + "/pulled" : rdir + "/pushed";
        ChildProcess child;
        ASSERT_TRUE(child.start(kProgram, command("-j 3 " + line), environment(parallelEnv())));
        auto growing = [&] {
            for (const char* d : {"/a", "/b", "/c"}) {
                struct stat st {};
                if (stat((target + d + "/huge.img").c_str(), &st) == 0 && st.st_size > 0)
                    return true;
            }
            return false;
        };
        for (int i = 0; i < 2000 && !growing(); ++i) usleep(10000);  // at most 20 s
        ASSERT_TRUE(growing()) << "no piece began its big file";
        kill(child.pid(), sig);
        ChildResult r = child.finish(30000);
        EXPECT_EQ(r.exitStatus, 128 + sig) << r.err;
        // Listed: only files that are complete. A small file whose last
        // bytes left just before the signal can be complete on the server
        // with its answer still on the way: unconfirmed, so not listed, and
        // whole, so not removed either.
        Args onDisk = listTree(target, true), listed = sortedLines(r.out);
        if (line.rfind("pull", 0) == 0) {
            EXPECT_EQ(listed, onDisk);
        }
        for (const std::string& f : listed)
            EXPECT_TRUE(std::binary_search(onDisk.begin(), onDisk.end(), f)) << f;
        for (const std::string& f : onDisk) {
            EXPECT_EQ(f.find("huge"), std::string::npos) << "a partial file was left: " << f;
            EXPECT_EQ(readFile(target + "/" + f), readFile(src + "/" + f)) << f;
        }
    }
}

TEST_F(CliTest, ProgressBarOnlyOnATerminalOrWhenAsked) {
    std::string bytes = randomBytes(6 << 20, 4);
    writeFile(local + "/movie.mkv", bytes);
    ChildResult piped = scpkit("--progress get R/../local/movie.mkv -");
    EXPECT_EQ(piped.exitStatus, 0) << piped.err;
    EXPECT_TRUE(piped.out == bytes) << "the bar never mixes into the data";
    // 5 MB a second at most for the get: the bar is drawn a few times.
    for (const char* line : {"put L/movie.mkv R/copy.mkv", "-l 40000 get R/copy.mkv L/copy.mkv"}) {
        SCOPED_TRACE(line);
        ChildProcess child;
        ASSERT_TRUE(child.start(kProgram, command(line), environment(), "", 100));  // 100 columns
        ChildResult terminal = child.finish(20000);
        ASSERT_EQ(terminal.exitStatus, 0) << terminal.out;
        std::string& screen = terminal.out;
        for (size_t crlf; (crlf = screen.find("\r\n")) != std::string::npos;) screen.erase(crlf, 1);
        // The total is exact from the start (put) or from the first block (get).
        EXPECT_NE(screen.find("/   6.0MiB"), std::string::npos) << screen;
        // Redrawn in place; the finished file leaves one line with its figures.
        std::string finished = screen.substr(screen.rfind('\r') + 1);
        EXPECT_TRUE(std::regex_search(finished, std::regex("^(movie|copy).mkv +100%  6.0MiB ")))
            << finished;
        EXPECT_EQ(std::count(screen.begin(), screen.end(), '\n'), 1);
        EXPECT_TRUE(line[0] == 'p' || finished.find("0:00") == std::string::npos)
            << "the limit makes it take a second: " << finished;
    }
    EXPECT_TRUE(readFile(local + "/copy.mkv") == bytes);
}

// A server that shows what the remote scp received: its environment, and
// where a bare file name lands.
TEST(CliRemoteScp, EnvAndFilenameOnlyReachTheRemoteScp) {
    ScratchDir root;
    chmod(root.path().c_str(), 0755);
    std::string landing = root.file("landing/");
    writeFile(root.file("wrap"),
              "#!/bin/sh\nprintf '%s|%s\\n' \"$SCPKIT_A\" \"$SCPKIT_B\" >>" + root.file("env.log") +
                  "\ncd " + landing + " && exec /bin/sh -c \"$SSH_ORIGINAL_COMMAND\"\n",
              -1, 0755);
    writeFile(landing + "file.txt", "payload");
    SshdFixture sshd({"AcceptEnv SCPKIT_*\nForceCommand " + root.file("wrap") + "\n"});
    if (!sshd.ok()) GTEST_SKIP() << "no sshd: " << sshd.error();
    auto run = [&](Args args, const std::string& target) {
        Args all =
            words("-P " + std::to_string(sshd.port()) + " -i " + sshd.clientKeyPath() +
                  " --known-hosts " + sshd.knownHostsPath() + " put " + landing + "file.txt");
        args.insert(args.end(), all.begin(), all.end());
        args.push_back(sshd.user() + "@127.0.0.1:" + target);
        return outputOf(runChild(kProgram, args, {"HOME=" + root.path(), "SSH_AUTH_SOCK"}));
    };
    const std::string value = "two words \"quoted\" a\\b\ttab caf\xc3\xa9";
    EXPECT_EQ(run({"--env", "SCPKIT_A=hi", "--env", "SCPKIT_B=" + value}, landing + "1"), "");
    EXPECT_EQ(readFile(root.file("env.log")), "hi|" + value + "\n");
    // Only the name goes to the remote scp: the file lands where it runs.
    EXPECT_EQ(run({"--filename-only"}, "/nonexistent/dir/3"), "");
    EXPECT_EQ(readFile(landing + "3"), "payload");
}

}  // namespace
}  // namespace scpkit::test
