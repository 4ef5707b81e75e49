# shellcheck shell=sh
# What the scripts for the machine share. A document has several blocks, and differs from the next
# one everywhere.
mkdir /documents
for number in $(seq 0 11) 99; do
  printf %s "$(seq -s , "$number" $((number + 2000)))" >"/documents/$number"
done
fault=  # a library that makes a faulty saver, or none
save_key_file() { LD_PRELOAD=$fault keyfile /mnt/conf set saves text "$(cat "/documents/$1")"; }
save_file() { LD_PRELOAD=$fault replace /mnt/file "$(cat "/documents/$1")"; }
