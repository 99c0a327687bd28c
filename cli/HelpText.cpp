#include "cli/HelpText.h"

#include <sstream>

#include "cli/SyncModes.h"

namespace scpkit::cli {

std::string helpFooter() {
    std::ostringstream f;
    f << "The commands in full:\n"
         "  put  LOCAL_FILE... [USER@]HOST:REMOTE_PATH   upload files (- alone reads standard "
         "input)\n"
         "  get  [USER@]HOST:REMOTE_PATH... LOCAL_PATH   download files (- writes standard "
         "output)\n"
         "  push LOCAL_DIR  [USER@]HOST:REMOTE_DIR       bring a remote tree up to date\n"
         "  pull [USER@]HOST:REMOTE_DIR  LOCAL_DIR       bring a local tree up to date\n"
         "With several sources the target is a directory. get takes wildcards in the last\n"
         "part of a remote path (quote them: 'host:logs/*.txt').\n"
         "push and pull print each file they copy, one per line, as it is done.\n\n"
         "Modes for push and pull (--mode NAME, or the library's number for the direction):\n";
    for (const SyncModeName& m : syncModeNames()) {
        f << "  " << m.name << std::string(16 - std::string(m.name).size(), ' ') << m.meaning
          << " (pull " << m.downloadMode << ", push " << m.uploadMode << ")\n";
    }
    f << "Patterns match names, not paths: --exclude '*.o' skips every .o file.\n\n"
         "Exit status: 0 success, 1 transfer failed, 2 usage error,\n"
         "3 connection, host key or authentication failure,\n"
         "130 interrupted (Ctrl-C), 143 terminated (SIGTERM), 129 hangup (SIGHUP).\n\n"
         "Examples:\n"
         "  scpkit put report.pdf notes.txt alice@server:/srv/reports/\n"
         "  scpkit get server:logs/app.log - | grep ERROR\n"
         "  scpkit get 'server:logs/*.log' ./logs/\n"
         "  scpkit push --mode newer --exclude '*.tmp' site/ server:/var/www/site\n"
         "  scpkit pull -P 2222 -n '[2001:db8::5]:backup' ./backup\n";
    return f.str();
}

}  // namespace scpkit::cli
