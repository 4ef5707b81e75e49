# shellcheck shell=sh
# Says of each disk in /disks, by where it begins and the numbers that were reported, whether its
# files are whole and take another save.
# usage: inspect.sh FILE_SYSTEM MOUNT_OPTIONS
# shellcheck source=/dev/null
. /save.sh
holds() { cmp -s "$1" "/documents/$2" || cmp -s "$1" "/documents/$(($2 + 1))"; }
inspect() {
  keyfile /mnt/conf get saves text | tr -d '\n' >/tmp/text && holds /tmp/text "$1" &&
    holds /mnt/file "$2" &&
    save_key_file 99 && save_file 99 && cmp -s /mnt/file /documents/99
}
while read -r offset of_key_file of_file; do
  losetup -o "$offset" /dev/loop0 /dev/vda
  if mount -t "$1" -o "$2" /dev/loop0 /mnt && inspect "$of_key_file" "$of_file"; then
    echo good
  else
    echo bad
  fi
  umount /mnt
  losetup -d /dev/loop0
done </disks
