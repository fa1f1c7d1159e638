#!/bin/sh
# The server report for the browser and for packages.
echo "Content-Type: text/plain"
echo
exec gen_serverreport.sh
