#!/usr/bin/env bash
# Assertions of pds_hostile.sh: check WHAT EXPECTED ACTUAL (counts failures in $failures), and
# js EXPRESSION over the JSON on stdin, bound to j (strings print bare, "NOT-JSON" for bad input).
failures=0
check() {
    if [ "$2" == "$3" ]; then
        echo "ok   - $1"
    else
        echo "FAIL - $1: expected [$2], got [$3]"
        failures=$((failures + 1))
    fi
}
js() {
    node -e 'let s="";process.stdin.on("data",d=>s+=d).on("end",()=>{let j;try{j=JSON.parse(s)}catch(e){console.log("NOT-JSON");return}
const r=new Function("j","return ("+process.argv[1]+")")(j);console.log(typeof r==="string"?r:JSON.stringify(r))})' "$1"
}
