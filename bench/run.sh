#!/bin/sh
# The benchmark suite (bench/README.md): bench/run.sh [--quick] [--out FILE] [--only 1,2,...]
cd "$(dirname "$0")/.." && exec /usr/bin/python3 bench/run.py "$@"
