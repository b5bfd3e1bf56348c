#!/bin/sh
# Renders one part of a frame, or goes on with it: task N of an array job renders part N. Without Slurm the number
# of the part, from 0 to @LAST@, is the script's argument.
#SBATCH --job-name=zephlore-part
#SBATCH --array=0-@LAST@
#SBATCH --output=part-%a.log
#SBATCH --open-mode=append
#SBATCH --requeue
#SBATCH --nodes=1
#SBATCH --ntasks=1
#SBATCH @PROCESSORS@
part=${SLURM_ARRAY_TASK_ID:-${1?"the number of the part is missing"}}
program=@PROGRAM@
scene=@SCENE@
folder=@FOLDER@
begin=$((@SAMPLE@ * part / @PARTS@))
end=$((@SAMPLE@ * (part + 1) / @PARTS@))

# Files of this folder tell how far everything is: whole ones, whoever reads them when.
tell() {
  echo "$1" >"$folder/state-$part.new" && mv "$folder/state-$part.new" "$folder/state-$part"
}

cd "$folder" || exit 1
file=part-$part.zpc
tell "running on ${SLURMD_NODENAME:-$(uname -n)}"
if [ -e "$file" ]; then
  echo "part $part goes on with its checkpoint on ${SLURMD_NODENAME:-$(uname -n)}"
  set -- --resume "$file"
else
  echo "part $part begins on ${SLURMD_NODENAME:-$(uname -n)}"
  set -- --checkpoint "$file"
fi
if "$program" render "$scene" --quiet --passes "$begin:$end" @OPTIONS@ "$@"; then
  tell done
  exit 0
fi

# Nodes that are lost do not come here: Slurm itself puts their parts back into the queue.
failures=$(($(cat "failures-$part" 2>/dev/null || echo 0) + 1))
echo $failures >"failures-$part"
if [ $failures -gt 3 ]; then
  tell failed
  exit 1
fi
tell "failed, attempt $((failures + 1)) follows"
if [ -z "$SLURM_JOB_ID" ]; then exec /bin/sh "$0" "$part"; fi
# Within some seconds the job ends for it, this script and the command with it: so it may seem to fail.
scontrol requeue "$SLURM_JOB_ID" || { sleep 20; tell failed; }
exit 1
