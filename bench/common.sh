# Sourced by the process-level benchmarks: what each needs before it times anything.

# sox is both a contender and the converter of the test signal; a fresh machine lacks it.
install_sox_if_missing() {
    command -v sox >/dev/null 2>&1 && return 0
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update
    $sudo apt-get install -y sox
}

now() { date +%s%N; }
