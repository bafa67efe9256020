#!/bin/sh
# Seeded mutation sampler over the product sources; see scripts/mutants.py
# (or --help) for what it does and the seed set of record. Not part of the
# test command: a run of the default sample takes about forty minutes on two cores.
exec python3 "$(dirname "$0")/mutants.py" "$@"
