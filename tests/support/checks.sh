#!/usr/bin/env bash
# Assertions of the stack script (pds_hostile.sh). Source it, then:
#   check DESCRIPTION EXPECTED ACTUAL   prints ok/FAIL and counts failures in $failures
#   js EXPRESSION                       evaluates a JavaScript expression over the JSON on stdin
#                                       (bound to j); strings print bare, "NOT-JSON" for bad input
# End the script with: echo "$failures failure(s)"; [ "$failures" -eq 0 ]
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
