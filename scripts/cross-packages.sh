# Packages for the ARM cross builds; sourced by setup.sh --cross.
cross_arches=()
cross_packages=()
