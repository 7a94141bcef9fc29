// What the page costs the processor, which other programs on the machine do not change.
import type { Browsing } from './browser.js';

interface TraceEvent {
  name: string;
  pid: number;
  tid: number;
  tdur?: number; // microseconds of the processor
  args?: { name?: string };
}

export interface Tasks {
  count: number;
  longestMs: number; // of the processor
}

/** Notes the tasks of the page's main thread. */
export async function measureTasks(browsing: Browsing): Promise<{ end: () => Promise<Tasks> }> {
  const session = await browsing.browser.newBrowserCDPSession();
  const events: TraceEvent[] = [];
  session.on('Tracing.dataCollected', ({ value }) => events.push(...(value as unknown as TraceEvent[])));
  await session.send('Tracing.start', {
    transferMode: 'ReportEvents',
    traceConfig: { includedCategories: ['toplevel'], excludedCategories: ['*'] },
  });
  return {
    end: async () => {
      const complete = new Promise((resolve) => session.once('Tracing.tracingComplete', resolve));
      await session.send('Tracing.end');
      await complete;
      await session.detach();
      const threads = new Set(
        events
          .filter((event) => event.name === 'thread_name' && event.args?.name === 'CrRendererMain')
          .map(({ pid, tid }) => `${pid} ${tid}`),
      );
      const tasks = events.filter(
        (event) => /RunTask$/.test(event.name) && threads.has(`${event.pid} ${event.tid}`),
      );
      if (tasks.length === 0) throw new Error('the browser told no tasks');
      return {
        count: tasks.length,
        longestMs: tasks.reduce((longest, task) => Math.max(longest, (task.tdur ?? 0) / 1000), 0),
      };
    },
  };
}
