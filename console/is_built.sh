#!/bin/sh
# Ends with 0 when dist/index.html is as its sources say. A folder is newer when something was removed from it.
cd "$(dirname "$0")" || exit 1
page=dist/index.html
[ -f "$page" ] && [ -z "$(find src index.html vite.config.ts package-lock.json -newer "$page" -print -quit)" ]
