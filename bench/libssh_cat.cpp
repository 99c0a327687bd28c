// The floor under ClsSsh: a bare libssh client that runs `cat FILE` on one
// channel and reads every byte (discarded), so a profile of it shows what
// libssh itself costs and a profile of scpkit_bench what the layers above add.
//
//   libssh_cat PORT USER KEY KNOWN_HOSTS CIPHER FILE
#include <libssh/libssh.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: libssh_cat PORT USER KEY KNOWN_HOSTS CIPHER FILE\n");
        return 2;
    }
    int port = std::atoi(argv[1]);
    int on = 1;
    ssh_session s = ssh_new();
    ssh_options_set(s, SSH_OPTIONS_HOST, "127.0.0.1");
    ssh_options_set(s, SSH_OPTIONS_PORT, &port);
    ssh_options_set(s, SSH_OPTIONS_USER, argv[2]);
    ssh_options_set(s, SSH_OPTIONS_KNOWNHOSTS, argv[4]);
    ssh_options_set(s, SSH_OPTIONS_CIPHERS_C_S, argv[5]);
    ssh_options_set(s, SSH_OPTIONS_CIPHERS_S_C, argv[5]);
    ssh_options_set(s, SSH_OPTIONS_NODELAY, &on);
    ssh_key key = nullptr;
    if (ssh_connect(s) != SSH_OK || ssh_session_is_known_server(s) != SSH_KNOWN_HOSTS_OK ||
        ssh_pki_import_privkey_file(argv[3], nullptr, nullptr, nullptr, &key) != SSH_OK ||
        ssh_userauth_publickey(s, nullptr, key) != SSH_AUTH_SUCCESS) {
        std::fprintf(stderr, "libssh_cat: %s\n", ssh_get_error(s));
        return 1;
    }
    ssh_channel ch = ssh_channel_new(s);
    std::string command = std::string("cat '") + argv[6] + "'";
    if (!ch || ssh_channel_open_session(ch) != SSH_OK ||
        ssh_channel_request_exec(ch, command.c_str()) != SSH_OK) {
        std::fprintf(stderr, "libssh_cat: %s\n", ssh_get_error(s));
        return 1;
    }
    std::vector<char> buf(256 * 1024);
    long long total = 0;
    for (int n; (n = ssh_channel_read(ch, buf.data(), static_cast<uint32_t>(buf.size()), 0)) > 0;)
        total += n;
    std::printf("%lld bytes\n", total);
    ssh_channel_close(ch);
    ssh_channel_free(ch);
    ssh_key_free(key);
    ssh_disconnect(s);
    ssh_free(s);
    return 0;
}
