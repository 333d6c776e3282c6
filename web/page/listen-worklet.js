// The listen panel's processor: the library's receiver, instantiated here
// from the bytes the page hands over (an AudioWorklet cannot fetch), fed the
// microphone's samples block by block.
import { createNimbara } from './nimbara/core.js';

// Blocks that arrive while the module is being instantiated (about 3 s).
const MAX_WAITING_BLOCKS = 1000;

class Listener extends AudioWorkletProcessor {
  constructor(options) {
    super();
    this.receiver = null;
    this.waiting = [];
    createNimbara(options.processorOptions.wasmBinary).then(
      ({ Receiver }) => {
        this.receiver = new Receiver(sampleRate, 1);
        for (const block of this.waiting) this.receiver.push(block);
        this.waiting = null;
        this.report();
      },
      (error) => this.port.postMessage({ error: `The receiver did not load: ${error}` }),
    );
  }

  report() {
    const transmissions = this.receiver.take();
    if (transmissions.length > 0) this.port.postMessage({ transmissions });
  }

  process(inputs) {
    const channel = inputs[0]?.[0];
    if (!channel) return true;
    if (this.receiver) {
      try {
        this.receiver.push(channel);
        this.report();
      } catch (error) {
        this.port.postMessage({ error: `The receiver stopped: ${error.message}` });
        this.receiver = null;
      }
    } else if (this.waiting && this.waiting.length < MAX_WAITING_BLOCKS) {
      this.waiting.push(channel.slice());  // the engine reuses its arrays
    }
    return true;
  }
}

registerProcessor('nimbara-listener', Listener);
