# A private root, for the tests that install packages: what this machine has, with a layer in memory above it that takes
# every write. On the machine nothing changes and nothing stays mounted. Sourced; needs root.

project=$(cd "$here/../.." && pwd)

# check_needs TOOL ...
check_needs() {
  local tool
  [ "$(id -u)" -eq 0 ] || fail "mounting a private root needs root"
  for tool in "$@"; do
    command -v "$tool" >/dev/null || fail "$tool is missing: run scripts/setup"
  done
}

# The control groups of this process, in the trees where systemd makes its own.
control_groups() {
  local unified=/sys/fs/cgroup
  [ "$(stat -fc %T "$unified")" = cgroup2fs ] || unified=/sys/fs/cgroup/unified
  sed -n "s|^0::|$unified|p; s|^[0-9]*:name=systemd:|/sys/fs/cgroup/systemd|p" /proc/self/cgroup
}

# in_namespaces SCRIPT SCRATCH: runs "SCRIPT inside SCRATCH" with mounts, processes, network and control groups of its
# own. All ends with it, or after five minutes.
in_namespaces() {
  local parent status=0
  local -a groups
  for parent in $(control_groups); do groups+=("$parent/trial.$$"); done
  mkdir "${groups[@]}"
  (
    tee "${groups[@]/%//cgroup.procs}" >/dev/null <<<"$BASHPID"
    exec timeout --kill-after=10 300 unshare --mount --pid --net --uts --ipc --cgroup --fork --kill-child \
      --propagation private -- "$1" inside "$2"
  ) || status=$?
  find "${groups[@]}" -depth -type d -exec rmdir {} +
  return $status
}

# mount_private_root DIRECTORY: the root is DIRECTORY/root, what was written to it is in DIRECTORY/upper; /run/trial has
# the packages and the tests. Of the devices only those that belong to no hardware.
mount_private_root() {
  local root=$1/root device
  mount -t tmpfs -o mode=0755 private "$1"
  mkdir "$1/upper" "$1/work" "$root"
  mount -t overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" private "$root"
  mount -t proc proc "$root/proc"
  mount -t tmpfs -o mode=0755 run "$root/run"
  mount -t tmpfs -o mode=1777 tmp "$root/tmp"
  mount -t tmpfs -o mode=0755 dev "$root/dev"
  for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  ln -s /proc/self/fd "$root/dev/fd"
  mkdir "$root/dev/pts" "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  ln -s pts/ptmx "$root/dev/ptmx"
  mkdir -m 1777 "$root/run/lock"
  mkdir -p "$root/run/trial/packages"
  cp "$project"/build/release/packages/*.deb "$root/run/trial/packages"
  cp -r "$here/." "$root/run/trial/tests"
}
