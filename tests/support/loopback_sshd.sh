# A throwaway OpenSSH sshd on 127.0.0.1, for scripts (source this file).
#
#   loopback_sshd_start DIR   starts sshd with its own keys and config in DIR
#                             (which must exist and be private to the caller)
#   loopback_sshd_stop        stops it by its PID (safe to call twice)
#
# After a successful start these are set:
#   SSHD_PID SSHD_PORT        the server process and its port
#   SSHD_CLIENT_KEY           unencrypted ed25519 key that may log in
#   SSHD_KNOWN_HOSTS          known_hosts holding the server's key
#   SSHD_SSH_CONFIG           an ssh_config for OpenSSH clients (ssh -F, scp -F,
#                             rsync -e 'ssh -F ...'): host 127.0.0.1 on SSHD_PORT
#                             with that key and known_hosts, no prompts
# sshd must run as root: it logs the caller in as themselves.

SSHD_PID=
SSHD_PORT=

# (Standard error is closed rather than sent anywhere: a refused connection
# is the expected answer.)
_loopback_port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>&-; }

loopback_sshd_start() {
    local dir=$1
    if [ "$(id -u)" -ne 0 ]; then
        echo "loopback sshd: must run as root" >&2
        return 1
    fi
    [ -x /usr/sbin/sshd ] || { echo "loopback sshd: /usr/sbin/sshd is missing" >&2; return 1; }
    ssh-keygen -q -t ed25519 -N '' -C loopback-host -f "$dir/host_key" </dev/null || return 1
    ssh-keygen -q -t ed25519 -N '' -C loopback-client -f "$dir/client_key" </dev/null || return 1
    cp "$dir/client_key.pub" "$dir/authorized_keys"
    # sshd's privilege-separation directory
    mkdir -p /run/sshd
    chmod 0755 /run/sshd

    local attempt candidate
    SSHD_PORT=
    for attempt in $(seq 1 20); do
        candidate=$((20000 + RANDOM % 40000))
        _loopback_port_in_use "$candidate" && continue
        cat >"$dir/sshd_config" <<CONF
Port $candidate
ListenAddress 127.0.0.1
HostKey $dir/host_key
PidFile $dir/sshd.pid
AuthorizedKeysFile $dir/authorized_keys
UsePAM no
StrictModes no
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
MaxStartups 100
LogLevel ERROR
CONF
        /usr/sbin/sshd -f "$dir/sshd_config" -D -e 2>>"$dir/sshd.log" &
        SSHD_PID=$!
        local i
        for i in $(seq 1 50); do
            _loopback_port_in_use "$candidate" && { SSHD_PORT=$candidate; break; }
            kill -0 "$SSHD_PID" 2>&- || break
            sleep 0.1
        done
        [ -n "$SSHD_PORT" ] && break
        loopback_sshd_stop
    done
    if [ -z "$SSHD_PORT" ]; then
        cat "$dir/sshd.log" >&2 || true
        echo "loopback sshd: did not start" >&2
        return 1
    fi

    SSHD_CLIENT_KEY=$dir/client_key
    SSHD_KNOWN_HOSTS=$dir/known_hosts
    SSHD_SSH_CONFIG=$dir/ssh_config
    printf '[127.0.0.1]:%s %s\n' "$SSHD_PORT" "$(cut -d' ' -f1,2 "$dir/host_key.pub")" \
        >"$SSHD_KNOWN_HOSTS"
    cat >"$SSHD_SSH_CONFIG" <<CONF
Host 127.0.0.1
    Port $SSHD_PORT
    User $(id -un)
    IdentityFile $SSHD_CLIENT_KEY
    IdentitiesOnly yes
    UserKnownHostsFile $SSHD_KNOWN_HOSTS
    StrictHostKeyChecking yes
    BatchMode yes
    LogLevel ERROR
CONF
}

loopback_sshd_stop() {
    if [ -n "$SSHD_PID" ]; then
        kill "$SSHD_PID" 2>&- || true
        wait "$SSHD_PID" 2>&- || true
        SSHD_PID=
    fi
}
