#!/usr/bin/env bash
# Opens the HTML report of a demo run in headless Chromium and checks what the page shows: it
# loads without a console error, draws one box and one icicle cell per stage of the profile, a
# line per top-level stage, the labels of the stages, and the summary table. Leaves a screenshot.
# Usage: scripts/check-html-report.sh [screenshot.png]   (build: build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh chromium

shot="$(realpath -m "${1:-build/release/zel-prof-html.png}")"
cmake --preset release >/dev/null
cmake --build --preset release --target zel-prof >/dev/null
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

build/release/tools/zel-prof demo --iterations 120 --ops 2 --model 7 --html "$work/report.html" \
    >"$work/demo.txt"
build/release/tools/zel-prof report --format csv /data/vendor/zel/profile_rawdata_7.bin \
    >"$work/stages.csv"
stages=$(($(wc -l <"$work/stages.csv") - 1))
top=$(awk -F, 'NR > 1 && split($1, part, "/") <= 2' "$work/stages.csv" | wc -l)

if grep -Eq '(src|href)="(https?:)?//' "$work/report.html"; then
    echo "check-html-report: the page refers to the network" >&2
    exit 1
fi

browser=(chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run
         --disable-background-networking --disable-component-update --disable-sync
         --user-data-dir="$work/profile" --virtual-time-budget=5000)
"${browser[@]}" --enable-logging=stderr --v=0 --dump-dom "file://$work/report.html" \
    >"$work/dom.html" 2>"$work/console.txt" || true
"${browser[@]}" --hide-scrollbars --window-size=1060,1800 --screenshot="$shot" \
    "file://$work/report.html" >/dev/null 2>&1 || true

failures=0
fail() {
    echo "check-html-report: $*" >&2
    failures=$((failures + 1))
}
if grep -E 'CONSOLE|Uncaught|SyntaxError|TypeError|ReferenceError' "$work/console.txt"; then
    fail "console errors (above)"
fi
count() { grep -o "$1" "$work/dom.html" | wc -l; }
grep -q 'data-ready="1"' "$work/dom.html" || fail "the page's script did not finish"
[ "$(count 'class="box"')" -eq "$stages" ] || fail "$(count 'class="box"') box plots, $stages stages"
[ "$(count 'class="icicle-node"')" -eq "$stages" ] ||
    fail "$(count 'class="icicle-node"') icicle cells, $stages stages"
[ "$(count 'class="series"')" -eq "$top" ] || fail "$(count 'class="series"') lines, $top top-level stages"
grep -q "id=\"box-plot\" data-stages=\"$stages\"" "$work/dom.html" || fail "box plot stage count"
[ "$(count '<td class="stage">')" -eq "$stages" ] || fail "summary rows"
for label in TOTAL API CLIENT SERVICE ENGINE CPU_UD NPU_UD DD_0x1 DD_0x2 DD_ROOT_0x1 FW_0x2 HW_0x2; do
    grep -q "class=\"stage-label\">$label<" "$work/dom.html" || fail "no box plot labelled $label"
    grep -q "data-stage=\"[^\"]*$label\"" "$work/dom.html" || fail "no stage $label in the page"
done
[ -s "$shot" ] || fail "no screenshot"
if [ "$failures" -ne 0 ]; then
    exit 1
fi
echo "check-html-report: $stages stages, $top top-level; no console error; screenshot $shot"
