#!/usr/bin/env bash
# The uploader against pds-server and PouchDB Server on loopback: starts the stack and runs
# UploadHandlerOnStackTest of pelio_integration_tests against it. Fails when the test fails or is
# skipped (a skip here means the stack variables did not reach the test).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../support/stack.sh"

tests=$PELIO_BINARY_DIR/tests/pelio_integration_tests
[ -x "$tests" ] || { echo "FAIL - $tests not built"; exit 1; }

stack_start || { echo "FAIL - the stack did not start"; exit 1; }
export STACK_PDS_PORT STACK_CERT STACK_COUCH_URL
unset http_proxy HTTP_PROXY https_proxy HTTPS_PROXY all_proxy ALL_PROXY

out=$STACK_DIR/gtest.log
timeout 180 "$tests" --gtest_filter='UploadHandlerOnStack*' >"$out" 2>&1
rc=$?
grep -E '^\[ *(RUN|OK|FAILED|SKIPPED|PASSED) *\]|Failure|Expected|Which is|Value of|actual' "$out" | head -100
if [ $rc -ne 0 ]; then
    echo "FAIL - UploadHandlerOnStackTest (exit $rc)"
    echo "--- pds-server log (tail)"; tail -20 "$STACK_DIR/pds.log"
    exit 1
fi
if ! grep -q '^\[  PASSED  \] 1 test' "$out" || grep -q '^\[  SKIPPED \]' "$out"; then
    echo "FAIL - UploadHandlerOnStackTest did not run to a pass"
    exit 1
fi
echo "ok   - UploadHandlerOnStackTest passed against the stack"
