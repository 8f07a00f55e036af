# What tests share that build a daemon: a scratch folder $work, which goes with whatever was started.
work=$(mktemp -d)
daemon=
trap 'if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null || true; fi; rm -rf "$work"' EXIT

# Say what is wrong, with the last command's output and the daemon's, and end.
fail() {
    tail -n 40 "$work/log" "$work/said" 2>/dev/null || true
    echo "FAILED: $1"
    exit 1
}

# start_daemon PROGRAM CTL: start the daemon and wait until cpudefendctl has an answer.
start_daemon() {
    "$1" >"$work/said" 2>&1 &
    daemon=$!
    end=$(($(date +%s) + 20))
    until "$2" show >"$work/log" 2>&1; do
        kill -0 "$daemon" 2>/dev/null || fail "$1 ended"
        [ "$(date +%s)" -lt "$end" ] || fail "$1 does not answer"
        sleep 0.02
    done
}

# says TEXT: the daemon has said it.
says() {
    grep -qF "$1" "$work/said" || fail "the daemon does not say: $1"
}
