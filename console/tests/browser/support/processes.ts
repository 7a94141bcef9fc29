// Processes that a test starts: each is waited for until it is ready, and ended with the test.
import { type ChildProcess, execFile, spawn } from 'node:child_process';
import { promisify } from 'node:util';

export const run = promisify(execFile);

const kStartLimitMs = 30_000;
const kStopLimitMs = 5_000;

/** Waits until `reached` returns something that counts as true, and returns that. */
export async function until<T>(
  what: string,
  reached: () => T | Promise<T>,
  limitMs = 20_000,
): Promise<NonNullable<T>> {
  const deadline = Date.now() + limitMs;
  for (;;) {
    const value = await reached();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`waited ${limitMs} ms for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

/** One process and all lines that it has written, to either stream. */
export class Process {
  readonly lines: string[] = [];
  private readonly ended: Promise<void>;
  private isEnded = false;
  private rest = '';

  private constructor(
    private readonly name: string,
    readonly child: ChildProcess,
  ) {
    for (const stream of [child.stdout, child.stderr]) {
      stream?.setEncoding('utf8');
      stream?.on('data', (text: string) => {
        const parts = (this.rest + text).split('\n');
        this.rest = parts.pop() ?? '';
        this.lines.push(...parts);
      });
    }
    this.ended = new Promise((resolve) => {
      const end = () => {
        this.isEnded = true;
        resolve();
      };
      child.on('exit', end);
      child.on('error', (error) => {
        this.lines.push(String(error));
        end();
      });
    });
  }

  /** Starts it, and waits until it writes a line that matches `ready`. */
  static async start(
    command: string,
    args: string[],
    ready: RegExp,
    env: NodeJS.ProcessEnv = process.env,
  ): Promise<Process> {
    const started = new Process(
      command,
      spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] }),
    );
    try {
      await started.line(ready, kStartLimitMs);
    } catch (error) {
      await started.stop('SIGKILL');
      throw error;
    }
    return started;
  }

  /** Waits for a line from number `from` on. */
  async line(pattern: RegExp, limitMs = 20_000, from = 0): Promise<string> {
    return until(
      `${pattern} from ${this.name}`,
      () => {
        const found = this.lines.slice(from).find((line) => pattern.test(line));
        if (found === undefined && this.isEnded) {
          throw new Error(`${this.name} ended:\n${this.lines.slice(-20).join('\n')}`);
        }
        return found;
      },
      limitMs,
    );
  }

  async stop(signal: NodeJS.Signals = 'SIGTERM'): Promise<void> {
    if (!this.isEnded) this.child.kill(signal);
    const timer = setTimeout(() => this.child.kill('SIGKILL'), kStopLimitMs);
    await this.ended;
    clearTimeout(timer);
  }
}
