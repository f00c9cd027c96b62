#!/usr/bin/env bash
# units.sh FOLDER: the configured units are valid for the service manager, confine the worker, and
# contain the expected settings.
set -euo pipefail
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"
units=$1
max_exposure=15 # in tenths of the points of systemd-analyze: 100 is unprotected

if ! command -v systemd-analyze >/dev/null; then
    echo "skipped: systemd-analyze (package systemd) is missing"
    exit 0
fi

instance=stillimage@$(systemd-escape --path '/srv/a picture.jpg').service
for manager in system user; do
    mkdir "$scratch/$manager"
    # The program may not be installed yet at its final path.
    sed "s,^\(ExecStart=:\)[^ ]*,\1$STILLIMAGE," "$units/$manager/stillimage@.service" \
        >"$scratch/$manager/$instance"
    cp "$SOURCE_DIR/packaging/systemd/stillimage.slice" "$scratch/$manager/"
    messages=$(XDG_RUNTIME_DIR=$scratch systemd-analyze "--$manager" verify --man=no \
        "$scratch/$manager/$instance" 2>&1) || fault "the $manager unit is not valid"
    expect_same "messages on the $manager unit" "" "$messages"
    grep -Eq '^ExecStart=:/.*/stillimage --file=%f --no-autoshutdown --require-confinement$' \
        "$units/$manager/stillimage@.service" || fault "the $manager unit starts something else"
    for line in Type=notify TimeoutStartSec=infinity Restart=on-failure NoNewPrivileges=yes \
        'RestartPreventExitStatus=1 SIGABRT' RestrictAddressFamilies=AF_UNIX \
        'SystemCallFilter=landlock_add_rule landlock_create_ruleset landlock_restrict_self seccomp'; do
        grep -qx "$line" "$units/$manager/stillimage@.service" \
            || fault "the $manager unit lacks the line $line"
    done
done
grep -q '^MemoryMax=' "$SOURCE_DIR/packaging/systemd/stillimage.slice" || fault "the slice has no memory limit"

exposure=$(systemd-analyze security --offline=true --no-pager "$scratch/system/$instance" \
    | sed -n 's/.*exposure level for .*: \([0-9]*\)\.\([0-9]\).*/\1\2/p')
printf 'exposure of the system unit, in tenths: %s\n' "$exposure"
[ "$((10#${exposure:-100}))" -le "$max_exposure" ] || fault "it is too exposed"

finish
