// SPDX-License-Identifier: Apache-2.0
// Loads the npm package `canopen` from the folder into which the build has installed it:
//
//   const canopen = require('./load_canopen')(MODULES);
'use strict';

const Module = require('module');
const path = require('path');

// The package takes its check sum from a native module. It is installed without its build step, so that the tests need
// no compiler for it; this is that one function: CRC-16 with polynomial 0x1021 and start 0, most significant bit first.
function crc16(data) {
    let crc = 0;
    for (const byte of data) {
        crc ^= byte << 8;
        for (let bit = 0; bit < 8; ++bit) {
            crc = crc & 0x8000 ? ((crc << 1) ^ 0x1021) & 0xffff : (crc << 1) & 0xffff;
        }
    }
    const result = Buffer.alloc(2);
    result.writeUInt16BE(crc);
    return result;
}

module.exports = (modules) => {
    const load = Module._load;
    Module._load = function (request, ...rest) {
        return request === 'node-crc' ? { crc: (...args) => crc16(args[args.length - 1]) } : load.call(this, request, ...rest);
    };
    return require(path.join(modules, 'node_modules', 'canopen'));
};
