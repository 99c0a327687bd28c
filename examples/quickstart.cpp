// Upload a file, then bring a local directory up to date from the server.
#include <cstdio>
#include <cstdlib>

#include <scpkit/scpkit.h>

using namespace scpkit;

// Every object keeps the log of its last call: print it on failure.
static int fail(ClsBase& obj) {
    XString log;
    obj.get_LastErrorText(log);
    std::fprintf(stderr, "%s\n", log.getUtf8());
    return 1;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: quickstart HOST USER [PORT]\n");
        return 2;
    }
    XString host(argv[1]), user(argv[2]);
    int port = argc > 3 ? std::atoi(argv[3]) : 22;

    // Connect (the host key must be in ~/.ssh/known_hosts) and log in as ssh
    // would: the agent first, then the default keys in ~/.ssh.
    ClsSsh* ssh = ClsSsh::createNewCls();
    if (!ssh->Connect(host, port) || !ssh->LoginAuto(user)) {
        int status = fail(*ssh);
        ssh->decRefCount();
        return status;
    }

    int status = 0;
    {
        ClsScp scp;
        scp.UseSsh(*ssh);

        XString localFile("notes.txt"), remoteFile("notes.txt");
        XString remoteDir("projects"), localDir("projects-copy");
        const int missingOrNewer = 2;  // download mode: missing files and newer ones
        if (!scp.UploadFile(localFile, remoteFile)) {
            status = fail(scp);
        } else if (!scp.SyncTreeDownload(remoteDir, localDir, missingOrNewer, true)) {
            status = fail(scp);
        } else {
            XString copied;
            scp.get_SyncedFiles(copied);  // one relative path per line
            std::printf("%s\n", copied.getUtf8());
        }
    }
    ssh->Disconnect();
    ssh->decRefCount();
    return status;
}
