#!/bin/bash
# flood.sh FILE RESULT: times `cat FILE` until the terminal has taken all of it: the
# terminal answers the device-attributes query after the file only once it has read every
# byte before it. Writes the start and end times (ns) to RESULT.
stty -icanon -echo min 1
start=$(date +%s%N)
cat "$1"
printf '\033[c'
IFS= read -r -d c _reply
end=$(date +%s%N)
echo "$start $end" > "$2"
