#!/bin/sh
# Makes the images of the frame once all parts are rendered.
#SBATCH --job-name=zephlore-merge
#SBATCH --output=merge.log
#SBATCH --open-mode=append
#SBATCH --requeue
#SBATCH --ntasks=1
program=@PROGRAM@
folder=@FOLDER@

tell() {
  echo "$1" >"$folder/state-merge.new" && mv "$folder/state-merge.new" "$folder/state-merge"
}

# Images other than the one that was named go where one render would have put them.
cd @CALLER@ || exit 1
tell running
set --
part=0
while [ $part -lt @PARTS@ ]; do
  set -- "$@" "$folder/part-$part.zpc"
  part=$((part + 1))
done
if "$program" merge @MERGE_OPTIONS@ -- @OUTPUT@ "$@"; then
  tell done
else
  tell failed
  exit 1
fi
