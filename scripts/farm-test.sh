#!/bin/bash
# Renders a scene in parts on a farm of two nodes within this machine, kills a node in the midst of it, and compares
# the merged picture with that of a single render.
#
#   farm-test.sh PROGRAM SCENE    a zephlore, and a scene whose single render is the same each time
#
# Needs root, and Debian's munge, slurmctld, slurmd and slurm-client. Daemons, configuration and files of its own
# live in a folder below $TMPDIR until the end; nothing of an installed Slurm is used or changed.
set -euo pipefail

Fail() {
  echo "farm-test: $*" >&2
  exit 1
}

[ $# = 2 ] || Fail "usage: farm-test.sh PROGRAM SCENE"
[ "$(id -u)" = 0 ] || Fail "needs root"
program=$(realpath "$1")
scene=$(realpath "$2")
PATH=$PATH:/usr/sbin:/sbin
for tool in munged slurmctld slurmd sbatch; do
  command -v $tool > /dev/null || Fail "$tool is missing"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-farm-test-XXXXXX")
declare -A daemons=()

# Each daemon by its number; those of nodes take along whatever they have started.
CleanUp() {
  for name in "${!daemons[@]}"; do kill -KILL "${daemons[$name]}" 2> /dev/null || true; done
  [ -z "${farm-}" ] || kill "$farm" 2> /dev/null || true
  rm -rf --one-file-system "$work"
}
trap CleanUp EXIT
trap 'exit 1' HUP INT TERM

# Polls for at most so many seconds.
Await() {
  local seconds=$1
  shift
  for ((i = 0; i < 5 * seconds; i++)); do
    if "$@" > /dev/null 2>&1; then return 0; fi
    sleep 0.2
  done
  return 1
}

Configure() {
  local processors
  processors=$(nproc)
  cat > "$work/slurm.conf" << EOF
ClusterName=zephlore-test
SlurmctldHost=$(uname -n)(127.0.0.1)
SlurmctldPort=16817
AuthType=auth/munge
AuthInfo=socket=$work/munge/socket
CredType=cred/munge
SlurmUser=root
SlurmdUser=root
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool-%n
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd-%n.pid
SlurmctldLogFile=$work/slurmctld.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
SchedulerType=sched/backfill
MpiDefault=none
SlurmdTimeout=10
ReturnToService=1
MailProg=/bin/true
NodeName=alpha NodeHostname=$(uname -n) NodeAddr=127.0.0.2 Port=16818 CPUs=$processors State=UNKNOWN
NodeName=beta NodeHostname=$(uname -n) NodeAddr=127.0.0.3 Port=16819 CPUs=$processors State=UNKNOWN
PartitionName=all Nodes=ALL Default=YES MaxTime=INFINITE State=UP
EOF
  # Nothing is confined; a machine without control groups will do.
  echo "CgroupPlugin=cgroup/v1" > "$work/cgroup.conf"
  mkdir -p "$work"/{munge,state,spool-alpha,spool-beta}
  chmod 755 "$work" "$work/munge"
  chmod 600 "$work/slurm.conf"
}

StartFarm() {
  head -c 1024 /dev/urandom > "$work/munge/key"
  chmod 400 "$work/munge/key"
  munged --foreground --force --key-file="$work/munge/key" --socket="$work/munge/socket" \
    --pid-file="$work/munge/pid" --log-file="$work/munge/log" --seed-file="$work/munge/seed" \
    > /dev/null 2>&1 &
  daemons[munge]=$!
  disown
  Await 10 test -S "$work/munge/socket" || Fail "munged does not start: $(tail -n 1 "$work/munge/log")"
  export SLURM_CONF=$work/slurm.conf
  slurmctld -D -i > /dev/null 2>&1 &
  daemons[controller]=$!
  disown
  for node in alpha beta; do
    # A name space of processes is as mortal as a machine: with its first one all of them end. The root's own
    # propagation stays: in a chroot it cannot be changed.
    unshare --pid --fork --kill-child --mount-proc --propagation unchanged slurmd -D -N $node \
      >> "$work/slurmd-$node.log" 2>&1 &
    daemons[$node]=$!
    disown
  done
  Await 60 HaveNodes || Fail "the nodes do not come up: $(tail -n 3 "$work/slurmctld.log" "$work"/slurmd-*.log)"
}
HaveNodes() { [ "$(sinfo -h -N -t idle -o %N | sort -u | wc -l)" = 2 ]; }

Configure
StartFarm
mkdir "$work/a user's \"folder\""
cd "$work/a user's \"folder\""
cp -r "$scene" "the scene"
options=(--sample "${SAMPLE:-64}" --resolution "${RESOLUTION:-480x270}" --seed 7 --threads 1)

"$program" render "the scene" "${options[@]}" --quiet --output single.pfm
"$program" farm "the scene" "${options[@]}" --save-every 1 --parts 8 --output "it's merged.pfm" --wait > "$work/farm.log" 2>&1 &
farm=$!
folder="it's merged.pfm.farm"

# A node is lost while it renders. Slurm finds out after some seconds.
RendersOnBeta() {
  local state part
  for state in "$folder"/state-[0-7]; do
    part=${state##*-}
    if grep -q '^running on beta$' "$state" && [ -e "$folder/part-$part.zpc" ]; then
      victim=$part
      return 0
    fi
  done
  return 1
}
Await 300 RendersOnBeta || Fail "no part runs on the node beta: $(cat "$work/farm.log" "$folder"/part-*.log)"
kill -KILL "${daemons[beta]}"
[ "$(cat "$folder/state-$victim")" = "running on beta" ] || Fail "part $victim was too fast: ask for more with SAMPLE"
unset "daemons[beta]"
echo "the node beta is lost while it renders part $victim"

wait $farm || Fail "$(tail -n 3 "$work/farm.log")"
unset farm
sed 's/^/    /' "$folder/part-$victim.log"
grep -q "goes on with its checkpoint on alpha" "$folder/part-$victim.log" || Fail "part $victim was not redone"
echo "part $victim was redone on the node alpha; the merged picture and a single render's:"
python3 - single.pfm "it's merged.pfm" << 'EOF'
import array, sys
def read(name):
    with open(name, "rb") as file:
        assert file.readline() == b"PF\n"
        size, scale = file.readline(), float(file.readline())
        numbers = array.array("f", file.read())
        if (scale < 0) != (sys.byteorder == "little"): numbers.byteswap()
        return size, numbers
(size, a), (other, b) = (read(name) for name in sys.argv[1:])
assert size == other and len(a) == len(b) > 0
largest = max(abs(x - y) / max(abs(x), 1e-3) for x, y in zip(a, b))
print(f"    {len(a)} numbers, mean {sum(a) / len(a):.6f}, largest relative difference {largest:.2e}")
sys.exit(not largest < 1e-5)
EOF
