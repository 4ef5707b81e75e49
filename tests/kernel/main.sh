# shellcheck shell=sh
# Runs the tests on the machine of script/on-target, and again in 2040. /run says as which user, and
# on which file system each time: in memory is /tmp, on the disk /mnt.
set -e
read -r user now in_2040 </run
mount -t ext4 /dev/vda /mnt
chmod 1777 /mnt

run_tests() {
  for program in /tests/*; do
    if ! su "$user" -c "TMPDIR=$1 timeout 100 $program" >/output 2>&1 </dev/null ||
      ! passed=$(grep '^\[  \(PASSED  \] [1-9]\|SKIPPED \] [1-9]\)' /output); then
      cat /output
      exit 1
    fi
    echo "$program as $user in $1$2: $passed"
  done
}
run_tests "$now" ""
to-2040
run_tests "$in_2040" " in 2040"
