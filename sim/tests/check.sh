# Sourced by the launcher checks: check <description> <expected> <actual>
# prints the outcome and sets `fail` on a mismatch.
fail=0
check() {
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1: expected '$2', got '$3'"
        fail=1
    else
        echo "ok: $1"
    fi
}
