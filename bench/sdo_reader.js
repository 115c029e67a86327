// SPDX-License-Identifier: Apache-2.0
// The SDO client of the npm package `canopen`: reads the numbers 0x3000:01 to 0x3000:11 of node 8 in turn, as fast as
// they are answered, until the socket is shut down.
//
//   node sdo_reader.js DESCRIPTOR MODULES
//
// The descriptor is a SEQPACKET socket whose messages are the kernel's `struct can_frame`. The event loop knows no such
// sockets, so the answer is waited for in a plain read: that is also the quickest way.
'use strict';

const fs = require('fs');

const [descriptor, modules] = [Number(process.argv[2]), process.argv[3]];
const { Device, DataType } = require('../tests/integration/canopen/load_canopen')(modules);

const frameBytes = 16;
const answer = Buffer.alloc(frameBytes);

function receive() {
    if (fs.readSync(descriptor, answer, 0, frameBytes, null) !== frameBytes) {
        process.exit(0);
    }
    const length = answer.readUInt8(4);
    device.receive({ id: answer.readUInt32LE(0), data: Buffer.from(answer.subarray(8, 8 + length)) });
}

function send({ id, data }) {
    const request = Buffer.alloc(frameBytes);
    request.writeUInt32LE(id, 0);
    request.writeUInt8(data.length, 4);
    data.copy(request, 8);
    fs.writeSync(descriptor, request);
    queueMicrotask(receive);
}

const device = new Device({ id: 1 });
device.addListener('message', send);
device.eds.addSdoClientParameter(8, 0x608, 0x588);
device.start();

(async () => {
    for (let subIndex = 1; ; subIndex = (subIndex % 17) + 1) {
        const value = await device.sdo.upload({ serverId: 8, index: 0x3000, subIndex, dataType: DataType.UNSIGNED32 });
        if (value !== 0x04030200 + subIndex) {
            throw new Error(`0x3000:${subIndex} is ${value}`);
        }
    }
})();
