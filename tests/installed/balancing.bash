# A small repository that is due for a pass, for checks in a private root. Sourced, in a directory with consumer/.

export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/tmp DEBIAN_FRONTEND=noninteractive
unset JAVA_HOME LD_LIBRARY_PATH CPATH LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
repository=/srv/repository
locks=/run/lock/repositoryhandler
instance=mountwarden@$(systemd-escape --path "$repository")

# quietly COMMAND ...: what it prints is told only when it fails.
quietly() {
  local output
  output=$("$@" 2>&1) || fail "this failed: $*"$'\n'"$output"
}

# Also where the machine's dpkg is told to leave documentation out, as container images often are.
install_packages() {
  quietly dpkg --install --path-include='/usr/share/*' packages/*.deb
}

# As a process of the system user, with what the service sets.
as_service() {
  setpriv --reuid=repository --regid=repository --init-groups env "LOCK_VAR=$locks" "$@"
}

# By the linker's cache and the pkg-config file of the system directories alone.
build_consumer() {
  local -a flags
  read -ra flags < <(pkg-config --cflags --libs KTRepositoryHandler)
  quietly c++ -o consumer tests/consumer/consumer.cpp "${flags[@]}"
}

# Two small disks in memory; the first is drained early.
make_repository() {
  local disk
  for disk in disk1 disk2; do
    mkdir -p "$repository/$disk"
    mount -t tmpfs -o size=8m,mode=0755,noatime "$disk" "$repository/$disk"
    touch "$repository/$disk/repositorypart.cfg"
  done
  printf 'moveLimit=50\ncleanLimit=30\n' >"$repository/disk1/repositorypart.cfg"
  printf 'mountPoints=disk1\\disk2\n' >"$repository/repository.cfg"
  chown -R repository:repository "$repository"
}

# Ten resources, six tenths of the first disk, each used a day after the one before. Each holds a directory of a kind
# that a hardened cp may not be allowed to make.
fill_repository() {
  local number path
  for number in 0 1 2 3 4 5 6 7 8 9; do
    read -r _ path < <(as_service ./consumer "$repository" "letters$number")
    [[ $path == "$repository/disk1/"* ]] || fail "letters$number was not placed on the empty first disk: $path"
    as_service dd if=/dev/urandom "of=$path/text" bs=1k count=480 status=none
    as_service mkdir -m 2775 "$path/shared"
    as_service touch -d "$((30 - number)) days ago" "$path"
  done
  (cd "$repository/disk1" && find . -name text -exec sha256sum {} + | sort -k 2) >before
}

# The oldest resources have left the first disk, whole, and still belong to the user; all are found, and no lock is
# left.
check_balanced() {
  local number
  find "$repository/disk2" -path '*/letters0/shared' | grep . >/dev/null || fail "the oldest resource was not moved"
  find "$repository/disk1" -name letters9 | grep . >/dev/null || fail "the youngest resource was moved"
  (cd "$repository" && find disk1 disk2 -name text -exec sha256sum {} + | sed 's: disk[12]/: ./:' | sort -k 2) >after
  cmp before after || fail "the resources are not what they were"
  [ -z "$(find "$repository"/disk? ! -user repository)" ] || fail "files belong to another user"
  for number in 0 9; do as_service ./consumer "$repository" "letters$number"; done >found
  [ "$(cut -d/ -f4 found | paste -sd' ')" = "disk2 disk1" ] || fail "not found where they are: $(cat found)"
  [ -z "$(ls "$locks")" ] || fail "locks are left: $(ls "$locks")"
}
