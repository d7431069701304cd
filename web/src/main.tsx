import { render } from 'preact';

render(<main>Brinmoor</main>, document.getElementById('app')!);
