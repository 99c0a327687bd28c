// The jump hosts a connection goes through, as ssh's -J and ProxyJump write
// them: a comma-separated list of [user@]host[:port] (ssh://[user@]host[:port]
// too), first hop first; an IPv6 address goes in brackets.
#pragma once

#include <string>
#include <vector>

namespace scpkit {

struct JumpHost {
    std::string user;  // empty: the config's User for the host, else the local user
    std::string host;  // without the brackets of an IPv6 address
    int port = 0;      // 0: the config's Port for the host, else 22
};

// How far connecting to a jump host went.
enum class JumpHostOutcome { LoggedIn, LoginRefused, Failed };

// True when `text` is a well-formed list (empty and "none" give no hops);
// otherwise `error` says what is wrong with which entry.
bool parseJumpHosts(const std::string& text, std::vector<JumpHost>& hops, std::string& error);

// One hop written back as parseJumpHosts reads it.
std::string formatJumpHost(const JumpHost& hop);

// libssh turns a ProxyJump line of ~/.ssh/config into the ProxyCommand
// "ssh [-l USER] [-p PORT] [-J REST] -W '[%h]:%p' HOST". Given such a
// command, sets `jumps` to the ProxyJump it came from and returns true;
// false for any other command.
bool proxyJumpFromCommand(const std::string& command, std::string& jumps);

}  // namespace scpkit
