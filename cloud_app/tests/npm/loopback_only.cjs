// Preloaded with `node --require` into a peer server that has no host option (the Portkey
// gateway listens on every interface): every TCP listen without a host gets 127.0.0.1, so a
// test or benchmark server is never reachable from beyond this machine.
'use strict';
const net = require('net');

const LOOPBACK = '127.0.0.1';
const listen = net.Server.prototype.listen;

net.Server.prototype.listen = function listenOnLoopback(...args) {
  const [first, second] = args;
  if (first !== null && typeof first === 'object' && !Array.isArray(first) && first.path === undefined) {
    args[0] = { ...first, host: LOOPBACK };
  } else if (typeof first === 'number' || (typeof first === 'string' && /^\d+$/.test(first))) {
    if (typeof second === 'string' || second === undefined || second === null) {
      args[1] = LOOPBACK;
    } else {
      args.splice(1, 0, LOOPBACK);
    }
  }
  return listen.apply(this, args);
};
