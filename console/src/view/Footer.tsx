import { Console } from '../page/Console';

// The page's own measurements.
export function Footer({ page }: { readonly page: Console }) {
  const { meter, connection } = page;
  const used = meter.usedBytes;
  return (
    <footer data-testid="meter">
      <span>{meter.messagesPerSecond.toLocaleString('en')} messages/s</span>
      <span>
        longest frame {Math.round(meter.recentLongestMs)} ms in 10 s, {Math.round(meter.longestFrameMs)} ms in all
      </span>
      {used !== null && <span>{Math.round(used / 1048576)} MiB</span>}
      {meter.firstViewMs !== null && <span>first view after {Math.round(meter.firstViewMs)} ms</span>}
      {connection.broker !== '' && (
        <span class="broker">
          {connection.user !== '' && `${connection.user} at `}
          {connection.broker}
        </span>
      )}
    </footer>
  );
}
