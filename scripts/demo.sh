#!/usr/bin/env bash
# The two-device demo: will start two host daemons on loopback, take photos on one device's
# camera from the other, and save the files. Not built yet.
set -euo pipefail

cat <<'TEXT'
The two-device demo is not built yet.

When it is, this command will build the project, start two Tandra host daemons (`tandrad`)
on this machine as two devices linked over loopback, run the requesting app (`tandra-photo`)
on the first to take photos with the camera app (`tandra-camera`) of the second, and save the
received photo files, printing each stage of the collaboration as it happens.

Until then, scripts/run-tests.sh builds everything and runs the test suite.
TEXT
