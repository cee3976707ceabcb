#!/usr/bin/env bash
# Builds the default preset and prints this library's SHA-256 throughput on
# 1 MiB inputs, for the accelerated and the portable block functions, next to
# the openssl command-line tool and sha256sum on the same machine. Those two
# are only run for comparison; nothing links against them.
# Figures are MB/s (10^6 bytes per second), each the best of three runs
# except openssl's, which averages over its own timed run.
set -euo pipefail
cd "$(dirname "$0")/.."

size=$((1 << 20))
file_size=$((256 << 20))

cmake --preset default >/dev/null
cmake --build --preset default --target sha256_bench >/dev/null

# Ours: bytes_per_second of the plain rows (not the aggregates) in the CSV.
csv=$(build/default/bench/sha256_bench --benchmark_filter="/${size}\$" \
        --benchmark_repetitions=3 --benchmark_format=csv 2>/dev/null)
ours() {
  awk -F, -v name="\"sha256/$1/${size}\"" '
    $1 == "name" { for (i = 1; i <= NF; i++) if ($i == "bytes_per_second") column = i; next }
    $1 == name && $column != "" && $column + 0 > best { best = $column + 0 }
    END { if (best > 0) printf "%.0f", best / 1e6; else printf "n/a" }' <<<"$csv"
}
accelerated=$(ours accelerated)
portable=$(ours portable)

# openssl: the -mr lines "+F:...:sha256:<bytes/s per block size>"; take the
# 1 MiB block where -bytes exists, else the largest standard one (16384).
if openssl speed -help 2>&1 | grep -q -- '-bytes'; then
  openssl_args=(-bytes "$size")
  openssl_block=$size
else
  openssl_args=()
  openssl_block=16384
fi
openssl=$(openssl speed -evp sha256 -seconds 3 -mr "${openssl_args[@]}" 2>/dev/null |
          awk -F: '$1 == "+F" { printf "%.0f", $NF / 1e6 }')

# sha256sum over a page-cached file, whole process timed.
data=$(mktemp /tmp/sha256_vs_openssl.XXXXXX)
trap 'rm -f "$data"' EXIT
head -c "$file_size" /dev/urandom >"$data"
sha256sum "$data" >/dev/null
best_ns=0
for _ in 1 2 3; do
  start=$(date +%s%N)
  sha256sum "$data" >/dev/null
  elapsed=$(($(date +%s%N) - start))
  if ((best_ns == 0 || elapsed < best_ns)); then best_ns=$elapsed; fi
done
sha256sum_mbs=$(awk -v bytes="$file_size" -v ns="$best_ns" \
                  'BEGIN { printf "%.0f", bytes * 1000 / ns }')

percent() {
  awk -v a="$1" -v b="$2" '
    BEGIN { if (a + 0 > 0 && b + 0 > 0) printf "%.0f%%", 100 * a / b; else printf "n/a" }'
}

echo "SHA-256 throughput, MB/s (10^6 bytes/s)"
printf '%-40s %8s  %s\n' "engine" "MB/s" "ratio (target)"
printf '%-40s %8s  %s\n' "ours, accelerated, 1 MiB inputs" "$accelerated" \
  "$(percent "$accelerated" "$openssl") of openssl (>= 90%)"
printf '%-40s %8s  %s\n' "ours, portable, 1 MiB inputs" "$portable" \
  "$(percent "$portable" "$sha256sum_mbs") of sha256sum (>= 100%)"
printf '%-40s %8s\n' "openssl speed -evp sha256, ${openssl_block} B" "$openssl"
printf '%-40s %8s\n' "sha256sum, $((file_size >> 20)) MiB cached file" "$sha256sum_mbs"
