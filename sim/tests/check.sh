# Result reporting shared by the launcher's shell checks: sourced, it sets
# `fail` to 0 and defines check(); the script ends with `exit $fail`.
fail=0
check() {  # check <description> <expected> <actual>
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1: expected '$2', got '$3'"
        fail=1
    else
        echo "ok: $1"
    fi
}
