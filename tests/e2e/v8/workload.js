// A churning JavaScript workload for the jitdump and perf map end-to-end test:
// each generation compiles a batch of functions with names of their own, runs
// them until the engine optimises them, feeds them a string so the optimised
// code is thrown away (deoptimised), optimises them again, then drops them and
// collects garbage, so that later code is placed at addresses earlier code
// held. A few long-lived functions stay hot throughout.
//
//   node --perf-prof --expose-gc workload.js [MILLIS] [BATCH] [HOT_LOOP_LENGTH]
'use strict';

const millis = Number(process.argv[2] || 5000);
const batch = Number(process.argv[3] || 24);
const hot = Number(process.argv[4] || 15000);
const deadline = Date.now() + millis;

// Distinct source per function: each gets code of its own and its own name.
function makeKernel(generation, k) {
  const mul = 31 + ((generation * 7 + k) % 61);
  const add = 1 + (generation % 97);
  const source = `
    return function kernel_${generation}_${k}(n, x) {
      let acc = ${k};
      for (let i = 0; i < n; i++) {
        acc = (acc * ${mul} + i * ${add}) % 1000003;
        if (typeof x === 'string') acc += x.length;
        else acc += x & 7;
      }
      return acc;
    };`;
  return new Function(source)();
}

// Long-lived: optimised once, kept all run long.
function mix(a, b) {
  return ((a ^ (b << 3)) + (b >>> 2)) & 0x7fffffff;
}

function steady(n) {
  let h = 17;
  for (let i = 0; i < n; i++) h = mix(h, i);
  return h;
}

let sink = 0;
let generation = 0;
let compiled = 0;
while (Date.now() < deadline) {
  let kernels = [];
  for (let k = 0; k < batch; k++) kernels.push(makeKernel(generation, k));
  compiled += kernels.length;
  // Warm with numbers: baseline code, then optimised code.
  for (let round = 0; round < 30; round++)
    for (const f of kernels) sink = (sink + f(200, round)) | 0;
  // Hot: most of the time goes to the optimised code.
  for (let round = 0; round < 10; round++)
    for (const f of kernels) sink = (sink + f(hot, round)) | 0;
  // A string where numbers were seen: the optimised code is deoptimised.
  for (const f of kernels) sink = (sink + f(50, 'deopt')) | 0;
  // Hot again: optimised a second time, for both kinds of x.
  for (let round = 0; round < 30; round++)
    for (const f of kernels) sink = (sink + f(200, round & 1 ? round : 'x')) | 0;
  for (let round = 0; round < 10; round++)
    for (const f of kernels) sink = (sink + f(hot, round & 1 ? round : 'x')) | 0;
  sink = (sink + steady(20000)) | 0;
  // Dropped: the next collection frees their code for later generations.
  kernels = null;
  if (typeof gc === 'function') gc();
  generation++;
}
console.log(`pid=${process.pid} generations=${generation} functions=${compiled} sink=${sink}`);
