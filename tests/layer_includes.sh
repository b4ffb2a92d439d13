#!/usr/bin/env bash
# The layers include only downward: each product folder may include its own headers
# and those of the layers listed for it, nothing above. The libraries enforce the
# same arrows at link time; this check names the offending file and line at once.
#   tests/layer_includes.sh SOURCE_DIR
set -uo pipefail
cd "${1:-$(dirname "$0")/..}"

declare -A allowed=(
  [common]="common"
  [serial]="serial common"
  [image]="image common"
  [flashhost]="flashhost serial common"
  [upgrade]="upgrade flashhost image common"
  [frontend]="frontend upgrade flashhost image serial common"
)
product="common serial image flashhost upgrade frontend"

bad=0
for folder in $product; do
    for file in "$folder"/*.h "$folder"/*.cpp; do
        [ -e "$file" ] || continue
        while IFS=: read -r line target; do
            layer=${target%%/*}
            case " $product " in *" $layer "*) ;; *) continue ;; esac
            case " ${allowed[$folder]} " in
                *" $layer "*) ;;
                *) echo "$file:$line: includes $target, but $folder/ may include only: ${allowed[$folder]}"
                   bad=1 ;;
            esac
        done < <(grep -n '^#include "' "$file" | sed 's/^\([0-9]*\):#include "\([^"]*\)".*/\1:\2/')
    done
done
exit $bad
